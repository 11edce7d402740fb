// Groups of transactions: while one is at the storage, the next forms on top of it.
#include <gtest/gtest.h>

#include <poll.h>

#include <condition_variable>
#include <mutex>
#include <thread>

#include "protocol/limits.h"
#include "service/service.h"
#include "support/store_unit.h"

using namespace tav;
using tavtest::text_at;
using State = Task::State;

namespace {

// Each commit takes until the test ends it.
class SlowStorage : public Storage {
public:
    bool commit(const Edit::Changes &changes) override {
        std::unique_lock<std::mutex> lock(mutex);
        ended.wait(lock, [this] { return outcome.has_value(); });
        committed.push_back(changes.size());
        const bool stored = *outcome;
        outcome.reset();
        return stored;
    }
    bool is_slow(const Edit::Changes & /*changes*/) const override { return true; }
    void end(bool stored) {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            outcome = stored;
        }
        ended.notify_one();
    }

    std::vector<std::size_t> committed; // the number of changes of each

private:
    std::mutex mutex;
    std::condition_variable ended;
    std::optional<bool> outcome;
};

class GroupsTest : public ::testing::Test {
protected:
    GroupsTest()
        : storage(new SlowStorage), store(std::unique_ptr<Storage>(storage)),
          service(store, "", [] { return Time{}; }), client(service.open({}, true)),
          other(service.open({}, true)) {}

    struct Request {
        std::string body;
        std::unique_ptr<Task> task;

        State step() const { return task->step(); }
        // The last byte of the answer, which is the status of the last path.
        int status() const { return task->take_frame(false).back(); }
    };
    Request begin(Session &session, Op op, const std::function<void(Writer &)> &content) {
        Writer out;
        put(out, RequestHeader{op, 1});
        content(out);
        Request request{out.finish(), nullptr};
        std::string reply;
        EXPECT_EQ(service.begin(session, std::string_view(request.body).substr(length_bytes), reply,
                                request.task),
                  Service::Begun::started);
        return request;
    }
    Request write(const std::vector<Item> &items) {
        return begin(client, Op::transact, [&items](Writer &out) { put_all(out, items); });
    }
    static Item set(const std::string &path, const std::string &text = "1") {
        return {ItemKind::set, path, {element_type_string, text, no_time}};
    }
    Request watch() {
        return begin(other, Op::event_register, [](Writer &out) {
            put(out, Registration{"/", api_event_change, false});
        });
    }
    // Ends the commit that the second thread does.
    void end_commit(bool stored) {
        storage->end(stored);
        pollfd entry{service.committing(), POLLIN, 0};
        EXPECT_EQ(::poll(&entry, 1, 10000), 1);
        service.commit_ended();
    }
    std::string text(const std::string &path) const { return text_at(store.tree(), path); }
    std::size_t fetched() { return tavtest::fetched(other).size(); }

    const std::string absent = "status " + std::to_string(api_status_absent);
    SlowStorage *storage;
    Store store;
    Service service;
    Session &client;
    Session &other;
};

// Commits at once, with what the test wants to do meanwhile.
class QuickStorage : public Storage {
public:
    bool commit(const Edit::Changes & /*changes*/) override { return meanwhile(); }
    std::function<bool()> meanwhile;
};

} // namespace

// A reader needs about as long to wake as such a commit takes.
TEST(QuickCommitTest, ReadersAreWokenBeforeItAndFindNothingIfItFails) {
    auto *storage = new QuickStorage;
    Store store{std::unique_ptr<Storage>(storage)};
    Service service(store, "", [] { return Time{}; });
    Session &reader = service.open({}, true);
    reader.register_events({"/", api_event_change, false}, {});
    tavtest::fetched(reader);
    service.before_commit = [&] {
        if (reader.wake_due()) {
            reader.wake_sent();
        }
    };
    const std::uint64_t before = service.publications();
    for (const bool stored : {false, true}) {
        storage->meanwhile = [&reader, stored] {
            EXPECT_FALSE(reader.wake_due());
            EXPECT_FALSE(reader.waiting());
            return stored;
        };
        Writer out;
        put(out, RequestHeader{Op::transact, 1});
        put_all(out, std::vector<Item>{tavtest::set_item("/a", "1")});
        std::string reply;
        EXPECT_TRUE(service.handle(service.open({}, true),
                                   std::string_view(out.finish()).substr(length_bytes), reply));
        EXPECT_EQ(reader.waiting(), stored);
        Fetch fetch(reader, {});
        std::vector<const Event *> events;
        EXPECT_FALSE(fetch.advance(events));
        EXPECT_EQ(events.size(), stored ? 1U : 0U);
        EXPECT_TRUE(fetch.drain());
    }
    EXPECT_EQ(service.publications(), before); // nobody has to be woken again
}

TEST_F(GroupsTest, AReadOfLongPathsIsDoneInParts) {
    const std::string path(limits::path_bytes + 1, '/');
    const Request read = begin(client, Op::read, [&path](Writer &out) {
        put_all(out, std::vector<std::string>(100, path));
    });
    EXPECT_EQ(read.step(), State::working);
}

TEST_F(GroupsTest, TheNextOneFormsWhileOneIsStored) {
    watch().step();
    fetched();
    const Request first = write({set("/a"), set("/b")});
    EXPECT_EQ(first.step(), State::blocked);
    service.commit();
    const Request second = write({set("/a", "2")});
    const Request third = write({set("/c")});
    EXPECT_EQ(second.step(), State::blocked);
    EXPECT_EQ(third.step(), State::blocked);
    service.commit();
    EXPECT_EQ(text("/a"), absent);
    EXPECT_EQ(fetched(), 0U);

    end_commit(true);
    EXPECT_EQ(text("/a"), "1") << "only what is stored is seen";
    EXPECT_EQ(text("/c"), absent);
    EXPECT_EQ(fetched(), 2U);
    EXPECT_EQ(first.step(), State::done);
    EXPECT_EQ(second.step(), State::blocked);
    EXPECT_TRUE(other.unseen("/c").there);

    service.commit();
    end_commit(true);
    EXPECT_EQ(text("/a"), "2");
    EXPECT_EQ(text("/c"), "1");
    EXPECT_EQ(fetched(), 2U);
    EXPECT_EQ(second.step(), State::done);
    EXPECT_EQ(second.status(), api_status_ok);
    EXPECT_EQ(storage->committed, (std::vector<std::size_t>{2, 2}));
    EXPECT_EQ(store.revision(), 2U);
    EXPECT_EQ(store.largest().children, 3U);
}

TEST_F(GroupsTest, ARefusedOneTakesTheNextOneWithIt) {
    watch().step();
    fetched();
    const Request first = write({set("/a/b/c")});
    const Request second = write({set("/a/b/d")});
    EXPECT_EQ(first.step(), State::blocked);
    service.commit();
    EXPECT_EQ(second.step(), State::blocked);
    end_commit(false);
    for (const Request *request : {&first, &second}) {
        EXPECT_EQ(request->step(), State::done);
        EXPECT_EQ(request->status(), api_status_failed);
    }
    EXPECT_EQ(text("/a/b/d"), absent);
    EXPECT_EQ(fetched(), 0U);
    EXPECT_FALSE(other.unseen("/a/b/c").there);
    EXPECT_FALSE(other.unseen("/a/b/d").there);
    EXPECT_EQ(store.largest().depth, 0U);

    const Request third = write({set("/c")});
    EXPECT_EQ(third.step(), State::blocked);
    service.commit();
    end_commit(true);
    EXPECT_EQ(third.step(), State::done);
    EXPECT_EQ(text("/c"), "1");
    EXPECT_EQ(store.tree().extent().elements(), 2U);
    EXPECT_EQ(storage->committed.back(), 1U);
    EXPECT_EQ(fetched(), 1U);
}

TEST_F(GroupsTest, ATransactionOnARefusedOneBeginsAgain) {
    const Request first = write({set("/a")});
    EXPECT_EQ(first.step(), State::blocked);
    service.commit();
    const Request many = write(std::vector<Item>(1000, set("/b")));
    EXPECT_EQ(many.step(), State::working);
    end_commit(false);
    State state = State::working;
    while (state == State::working) {
        state = many.step();
    }
    EXPECT_EQ(state, State::blocked);
    service.commit();
    end_commit(true);
    EXPECT_EQ(many.step(), State::done);
    EXPECT_EQ(text("/a"), absent);
    EXPECT_EQ(text("/b"), "1");
}

TEST_F(GroupsTest, ARegistrationWaitsForAllThatIsNotStored) {
    const Request first = write({set("/a")});
    EXPECT_EQ(first.step(), State::blocked);
    service.commit();
    const Request second = write({set("/b")});
    EXPECT_EQ(second.step(), State::blocked);
    const Request registration = watch();
    EXPECT_EQ(registration.step(), State::blocked);
    const Request third = write({set("/c")});
    EXPECT_EQ(third.step(), State::blocked) << "lets the registration be first";
    end_commit(true);
    EXPECT_EQ(registration.step(), State::blocked);
    service.commit();
    end_commit(true);
    EXPECT_EQ(third.step(), State::blocked);
    EXPECT_FALSE(store.has_group());

    const std::uint64_t before = service.releases();
    EXPECT_EQ(registration.step(), State::done);
    EXPECT_GT(service.releases(), before) << "or the write would wait for ever";
    EXPECT_EQ(fetched(), 1U) << "the notice";
    EXPECT_EQ(third.step(), State::blocked);
    EXPECT_TRUE(store.has_group());
    service.commit();
    end_commit(true);
    EXPECT_EQ(fetched(), 1U);
}

TEST_F(GroupsTest, ARegistrationThatNeedNotWaitStopsNoTransaction) {
    const Request registration = watch();
    const Request first = write({set("/a")});
    EXPECT_EQ(first.step(), State::blocked);
    EXPECT_TRUE(store.has_group());
    service.commit();
    end_commit(true);
}

TEST_F(GroupsTest, AFullOneTakesNoMore) {
    const Request first = write({set("/a")});
    EXPECT_EQ(first.step(), State::blocked);
    service.commit();
    std::vector<Item> many;
    for (std::size_t i = 0; i < limits::paths_per_request; ++i) {
        many.push_back(set("/n/" + std::to_string(i)));
    }
    const Request second = write(many);
    State state = State::working;
    while (state == State::working) {
        state = second.step();
    }
    EXPECT_EQ(state, State::blocked);
    EXPECT_TRUE(store.group_is_full());
    const Request third = write({set("/b")});
    EXPECT_EQ(third.step(), State::blocked);
    EXPECT_TRUE(service.others_wait());
    const std::uint64_t before = service.releases();
    end_commit(true);
    EXPECT_GT(service.releases(), before);
    EXPECT_EQ(third.step(), State::blocked);
    EXPECT_TRUE(service.others_wait());
    service.commit();
    EXPECT_GT(service.releases(), before + 1);
    EXPECT_EQ(third.step(), State::blocked);
    EXPECT_FALSE(service.others_wait()) << "it was carried out";
    end_commit(true);
    service.commit();
    end_commit(true);
    EXPECT_EQ(third.step(), State::done);
    EXPECT_EQ(storage->committed.size(), 3U);
}

class PrecedingTest : public GroupsTest {
protected:
    // A long transaction that has changed /n/0 and more, and is not yet complete.
    PrecedingTest() : at_work(write(numbered(1000))) { EXPECT_EQ(at_work.step(), State::working); }

    static std::vector<Item> numbered(int number) {
        std::vector<Item> items;
        for (int i = 0; i < number; ++i) {
            items.push_back(set("/n/" + std::to_string(i)));
        }
        return items;
    }
    void finish() {
        State state = State::working;
        // On a busy machine it may begin again for a short one that waits.
        while (state == State::working || !store.has_group()) {
            state = at_work.step();
        }
        EXPECT_EQ(state, State::blocked);
        store_group();
        EXPECT_EQ(at_work.step(), State::done);
        EXPECT_EQ(at_work.status(), api_status_ok);
        EXPECT_EQ(text("/n/999"), "1");
    }
    void store_group() {
        service.commit();
        end_commit(true);
    }
    void expect_waiting(const Request &request) {
        EXPECT_EQ(request.step(), State::blocked);
        EXPECT_FALSE(store.has_group());
        EXPECT_TRUE(service.others_wait());
    }

    Request at_work;
};

TEST_F(PrecedingTest, AShortOneIsStoredFirst) {
    const Request brief = write({set("/c"), set("/d")});
    EXPECT_EQ(brief.step(), State::blocked);
    EXPECT_FALSE(service.others_wait());
    store_group();
    EXPECT_EQ(brief.step(), State::done);
    EXPECT_EQ(text("/c"), "1");
    EXPECT_EQ(text("/n/0"), absent);
    finish();
    EXPECT_EQ(text("/c"), "1");
    EXPECT_EQ(text("/d"), "1");
}

TEST_F(PrecedingTest, OneThatItDependsOnWaits) {
    const Request brief = write({set("/n/0", "2")});
    expect_waiting(brief);
    finish();
    EXPECT_EQ(brief.step(), State::blocked);
    EXPECT_FALSE(service.others_wait());
    store_group();
    EXPECT_EQ(text("/n/0"), "2");
}

TEST_F(PrecedingTest, ALongOneBeginsAgainAfterOneThatItDependsOn) {
    std::this_thread::sleep_for(std::chrono::milliseconds(3));
    EXPECT_EQ(at_work.step(), State::working) << "nobody else wants to write";
    const Request longer = write(std::vector<Item>(65, set("/c")));
    expect_waiting(longer);
    EXPECT_EQ(at_work.step(), State::working) << "that one is not short";
    const Request brief = write({set("/n/0", "2"), set("/c", "2")});
    expect_waiting(brief);
    EXPECT_EQ(at_work.step(), State::blocked);
    EXPECT_EQ(brief.step(), State::blocked);
    EXPECT_TRUE(store.has_group());
    EXPECT_EQ(at_work.step(), State::working);
    finish();
    EXPECT_EQ(text("/n/0"), "1");
    EXPECT_EQ(text("/c"), "2");
}

TEST_F(PrecedingTest, AnotherLongOneWaits) {
    const Request other_long(write(std::vector<Item>(65, set("/c"))));
    expect_waiting(other_long);
    const std::string large(limits::value_bytes, 'x');
    const Request large_one(write({set("/c", large), set("/d", large)}));
    expect_waiting(large_one);
    const Request brief(write(std::vector<Item>(64, set("/c"))));
    EXPECT_EQ(brief.step(), State::blocked);
    EXPECT_TRUE(store.has_group());
}

TEST_F(PrecedingTest, AShortOneMayChangeDeepElements) {
    finish();
    std::string node;
    for (std::size_t i = 0; i + 2 < limits::depth; ++i) {
        node += "/d";
    }
    const Request first = write({{ItemKind::make_node, node, {}}});
    while (first.step() == State::working) {
    }
    store_group();
    at_work = write(numbered(2000));
    EXPECT_EQ(at_work.step(), State::working);
    std::vector<Item> items;
    for (int i = 0; i < 64; ++i) {
        items.push_back(set(node + '/' + std::to_string(i) + "/x"));
    }
    const Request brief = write(items);
    EXPECT_EQ(brief.step(), State::blocked);
    EXPECT_TRUE(store.has_group());
}

TEST_F(PrecedingTest, OneThatChangesMuchWaits) {
    finish();
    at_work = write(numbered(1000));
    EXPECT_EQ(at_work.step(), State::working);
    expect_waiting(write({{ItemKind::remove, "/n", {}}}));
}

TEST_F(PrecedingTest, AnInvalidOneIsRefusedAtOnce) {
    const Request brief = write({{ItemKind::remove, "/absent", {}}});
    EXPECT_EQ(brief.step(), State::done);
    EXPECT_EQ(brief.status(), api_status_absent);
    finish();
}

TEST_F(PrecedingTest, WhenItIsNotStoredTheLongOneBeginsAgain) {
    const Request brief = write({set("/c")});
    EXPECT_EQ(brief.step(), State::blocked);
    service.commit();
    end_commit(false);
    EXPECT_EQ(brief.step(), State::done);
    EXPECT_EQ(brief.status(), api_status_failed);
    finish();
    EXPECT_EQ(text("/c"), absent);
}

TEST_F(PrecedingTest, NoEventIsLost) {
    finish();
    watch().step();
    fetched();
    std::vector<Item> items = numbered(1000);
    for (Item &item : items) {
        item.value.text = "2";
    }
    at_work = write(items);
    for (int i = 0; i < 12; ++i) {
        EXPECT_EQ(at_work.step(), State::working); // events are made in the second half
    }
    const Request brief = write({set("/c", "2")});
    EXPECT_EQ(brief.step(), State::blocked);
    store_group();
    EXPECT_EQ(fetched(), 1U);
    while (at_work.step() == State::working) {
    }
    store_group();
    EXPECT_EQ(fetched(), 1000U);
}
