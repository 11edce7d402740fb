// A service with unconfirmed changes, without its loop and its sockets.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "protocol/history.h"
#include "service/service.h"
#include "support/store_fixture.h"
#include "support/store_unit.h"

namespace tavtest {

using namespace tav;

using Lines = std::vector<std::string>;
using Statuses = std::vector<api_status_t>;
using Items = std::vector<Item>;

// A database whose commits can be made to fail.
class FailingStorage : public Storage {
public:
    bool commit(const Edit::Changes & /*changes*/) override { return !fails; }
    bool fails = false;
};

class ConfirmTest : public ::testing::Test {
protected:
    ConfirmTest() { open(); }

    // As at a start of the service, of which the wall clock is `late` milliseconds after that of
    // the last one.
    void open(std::size_t transactions = 1000, std::int64_t late = 0,
              Durability durability = Durability::normal) {
        close();
        store = std::make_unique<Store>(file, durability);
        store->keep_history(HistoryBounds{transactions});
        serve(late);
    }
    // The same with an empty store in memory.
    FailingStorage &open_in_memory() {
        close();
        auto *storage = new FailingStorage;
        store = std::make_unique<Store>(std::unique_ptr<Storage>(storage));
        store->keep_history(HistoryBounds{10});
        serve();
        return *storage;
    }
    void serve(std::int64_t late = 0) {
        now += std::chrono::hours(1000); // the clocks of two starts have nothing in common
        service = std::make_unique<Service>(*store, "", [this] { return now; });
        service->resume(wall_clock() + late);
        owner = &service->open(Credentials{1, 1000, 0, {}}, true);
        other = &service->open(Credentials{2, 1001, 0, {}}, true);
        daemon = &service->open(Credentials{3, 1002, 0, {}}, true);
        service->watchdog().announce(daemon->id(), 3, WatchdogRequest{"daemon", 60, true}, now);
    }
    void close() {
        service.reset();
        store.reset();
    }

    std::string ask(Session &client, Op op, const std::function<void(Writer &)> &content) {
        Writer out;
        put(out, RequestHeader{op, 1});
        content(out);
        std::string reply;
        const bool valid =
            service->handle(client, std::string_view(out.finish()).substr(length_bytes), reply);
        return valid ? reply.substr(length_bytes + 5) : "malformed";
    }
    // The number of the change; the statuses of all steps go to `statuses`.
    std::uint64_t change(Session &client, const Items &items, std::uint32_t term = 10000) {
        const std::string reply = ask(client, Op::transact_pending, [&](Writer &out) {
            out.u32(term);
            put_all(out, items);
        });
        Reader in(reply);
        get_exactly(in, statuses, items.size());
        const std::uint64_t number = in.u64();
        EXPECT_TRUE(in.finished());
        return number;
    }
    Statuses write(Session &client, const Items &items) {
        const std::string reply =
            ask(client, Op::transact, [&](Writer &out) { put_all(out, items); });
        Reader in(reply);
        get_exactly(in, statuses, items.size());
        EXPECT_TRUE(in.finished());
        return statuses;
    }
    // The status, and the number that was confirmed.
    std::pair<api_status_t, std::uint64_t> confirm(Session &client, std::uint64_t number = 0) {
        const std::string reply =
            ask(client, Op::confirm, [number](Writer &out) { out.u64(number); });
        Reader in(reply);
        std::pair<api_status_t, std::uint64_t> answer;
        get(in, answer.first);
        answer.second = in.u64();
        EXPECT_TRUE(in.finished());
        return answer;
    }
    std::vector<PendingChange> pending() {
        const std::string reply = ask(*other, Op::pending, [](Writer &) {});
        Reader in(reply);
        std::vector<PendingChange> all;
        while (in.u8() == 1) {
            get(in, all.emplace_back());
        }
        EXPECT_TRUE(in.finished());
        return all;
    }
    // What the loop does when so much time has passed.
    void pass(std::chrono::milliseconds time) {
        now += time;
        int rounds = 0;
        do {
            service->revert();
            service->commit();
            if (store->committing()) {
                service->commit_ended();
            }
        } while (++rounds < 10000 && service->next_end() && *service->next_end() <= now);
        EXPECT_LT(rounds, 10000) << "it spins";
    }
    LimitStatus limit(const std::string &name) {
        const std::vector<LimitStatus> all = service->status().limits;
        return *std::find_if(all.begin(), all.end(), [&](auto &one) { return one.name == name; });
    }
    std::string picture() const { return tavtest::picture(store->tree()); }
    std::string text(const std::string &path) const { return text_at(store->tree(), path); }
    void sql(const std::string &text) {
        close();
        tavtest::sql(file, text);
    }

    const TempDir dir;
    const std::string file = dir.file("store.db");
    Time now{};
    std::unique_ptr<Store> store;
    std::unique_ptr<Service> service;
    Session *owner = nullptr;
    Session *other = nullptr;
    Session *daemon = nullptr;
    Statuses statuses;
    const std::string absent = "status " + std::to_string(api_status_absent);
};

} // namespace tavtest
