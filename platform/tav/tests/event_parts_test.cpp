// Very many events: they are fetched, merged and forgotten a part at a time, so that they delay
// nobody.
#include <gtest/gtest.h>

#include "protocol/limits.h"
#include "service/service.h"
#include "support/store_unit.h"

using namespace tav;
using State = Task::State;

namespace {

class EventPartsTest : public ::testing::Test {
protected:
    EventPartsTest() { reader.register_events({"/", api_event_change, false}, {}); }

    void stage(const std::string &stem, std::size_t number) {
        EventLog::Staged staged;
        for (std::size_t i = 0; i < number; ++i) {
            log.stage(staged, Event{mlr_event_set, stem + '/' + std::to_string(i)}, 0);
        }
        log.stage(staged);
    }
    void change(const std::string &stem, std::size_t number) {
        stage(stem, number);
        log.close_group();
        log.publish({});
    }
    std::unique_ptr<Task> begin(Session &session, Op op, const std::vector<Item> &items) {
        Writer out;
        put(out, RequestHeader{op, 1});
        if (!items.empty()) {
            put_all(out, items);
        }
        request = out.finish();
        std::string reply;
        std::unique_ptr<Task> task;
        EXPECT_EQ(
            service.begin(session, std::string_view(request).substr(length_bytes), reply, task),
            Service::Begun::started);
        return task;
    }
    std::unique_ptr<Task> fetch(Session &session) { return begin(session, Op::events_get, {}); }
    // The paths of the events of a complete answer in several frames.
    static std::vector<std::string> paths(std::string answer, bool drain = false) {
        std::vector<std::string> all;
        std::uint32_t number = 0;
        for (bool more = true; more;) {
            std::string_view body;
            EXPECT_EQ(next_frame(answer, body), FrameState::complete);
            Reader in(body);
            ReplyHeader header;
            get(in, header);
            EXPECT_EQ(header.drain, drain && all.empty());
            number = all.empty() ? in.u32() : number;
            while (!in.finished() && in.ok()) {
                Event event;
                get(in, event);
                all.push_back(event.path);
            }
            more = header.more;
            answer.erase(0, length_bytes + body.size());
        }
        EXPECT_TRUE(answer.empty());
        EXPECT_EQ(all.size(), number);
        return all;
    }

    Store store;
    Service service{store, "", [] { return Time{}; }};
    EventLog &log = store.events();
    Session &reader = service.open({}, true);
    std::string request; // the last one
};

} // namespace

TEST_F(EventPartsTest, AFetchGetsWhatWaitedWhenItBegan) {
    Session &other = service.open({}, true);
    other.register_events({"/", api_event_change, false}, {});
    reader.wake_sent();
    change("/a", 5000);
    const std::unique_ptr<Task> first = fetch(reader);
    EXPECT_EQ(first->step(), State::working);
    EXPECT_FALSE(reader.waiting());

    change("/a", 2);
    EXPECT_TRUE(reader.waiting());
    EXPECT_TRUE(log.merges()) << "the first ones must stay in place";
    service.trim_events();
    EXPECT_TRUE(log.merges());
    EXPECT_TRUE(service.trims());
    const std::unique_ptr<Task> write = begin(other, Op::transact, {tavtest::set_item("/b", "1")});
    EXPECT_EQ(write->step(), State::blocked);
    service.commit();
    EXPECT_TRUE(store.has_group()) << "it is published after the merging";
    const std::unique_ptr<Task> second = fetch(other);
    EXPECT_EQ(second->step(), State::blocked);

    const std::uint64_t releases = service.releases();
    int parts = 1;
    for (; first->step() == State::working; ++parts) {
        EXPECT_EQ(first->made(), fetch(reader)->made()) << "nothing is sent before all is made";
    }
    EXPECT_GT(parts, 10);
    std::vector<std::string> all = paths(first->take_frame(false), true);
    ASSERT_EQ(all.size(), 5001U);
    EXPECT_EQ(all.at(0), "/");
    EXPECT_EQ(all.at(1), "/a/0");
    EXPECT_EQ(all.at(5000), "/a/4999");

    EXPECT_GT(service.releases(), releases);
    EXPECT_FALSE(log.merges());
    EXPECT_EQ(tavtest::fetched(reader), (std::vector<std::string>{"2 /a/0", "2 /a/1"}));
    EXPECT_EQ(second->step(), State::working);
    EXPECT_FALSE(second->is_work());
    service.commit();
    EXPECT_FALSE(store.has_group());
}

TEST_F(EventPartsTest, AFetchOfAClientThatLeavesHoldsNothing) {
    change("/a", 5000);
    std::unique_ptr<Task> first = fetch(reader);
    EXPECT_EQ(first->step(), State::working);
    change("/b", 5000);
    EXPECT_TRUE(log.is_held());
    first.reset();
    EXPECT_FALSE(log.is_held());
    const std::unique_ptr<Task> second = fetch(reader);
    while (log.merges()) {
        EXPECT_EQ(second->step(), State::blocked);
        service.trim_events();
    }
    EXPECT_EQ(second->step(), State::working);
}

// Otherwise joining a transaction with as many would take long.
TEST_F(EventPartsTest, AGroupWithManyIsFull) {
    stage("/a", 4095);
    EXPECT_FALSE(store.group_is_full());
    stage("/b", 1);
    EXPECT_TRUE(store.group_is_full());
}

TEST_F(EventPartsTest, ThoseOfAClientThatLeavesAreForgottenInParts) {
    change("/a", 10000);
    EXPECT_FALSE(service.trims());
    service.close(reader.id());
    int parts = 1;
    for (; service.trims(); ++parts) {
        EXPECT_FALSE(log.published().empty());
        service.trim_events();
    }
    EXPECT_EQ(parts, 10);
    EXPECT_TRUE(log.published().empty());
}

// The service once did nothing else meanwhile.
TEST_F(EventPartsTest, TooManyAreForgottenInParts) {
    std::string stem;
    for (int i = 0; i < 6; ++i) {
        stem += '/' + std::string(limits::name_bytes, 'x');
    }
    constexpr std::size_t number = 60000;
    change(stem, number);
    const EventBatch &waiting = log.published();
    EXPECT_GT(waiting.bytes(), limits::event_bytes * 3 / 2);
    service.trim_events();
    EXPECT_TRUE(reader.overflowed());
    EXPECT_TRUE(service.trims());
    EXPECT_GE(waiting.size(), number - 2 * 4096);
    while (service.trims()) {
        service.trim_events();
    }
    EXPECT_TRUE(waiting.empty());
}
