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
    // With so many names of the largest length.
    static std::string path_of(int names) {
        std::string path;
        for (int i = 0; i < names; ++i) {
            path += '/' + std::string(limits::name_bytes, 'x');
        }
        return path;
    }
    void merge() {
        while (log.merges()) {
            log.merge();
        }
    }
    struct Request {
        std::string frame;
        std::unique_ptr<Task> task;
    };
    Request begin(Session &session, Op op, const std::vector<Item> &items = {}) {
        Writer out;
        put(out, RequestHeader{op, 1});
        if (!items.empty()) {
            put_all(out, items);
        }
        Request request{out.finish(), nullptr};
        std::string reply;
        EXPECT_EQ(service.begin(session, std::string_view(request.frame).substr(length_bytes),
                                reply, request.task),
                  Service::Begun::started);
        return request;
    }
    // The paths of the events in a frame of an answer.
    static std::vector<std::string> paths(const std::string &frame, bool drain) {
        Reader in(std::string_view(frame).substr(length_bytes));
        ReplyHeader header;
        get(in, header);
        EXPECT_EQ(header.drain, drain);
        std::vector<std::string> all;
        do {
            std::vector<Event> part;
            get_all(in, part);
            for (const Event &event : part) {
                all.push_back(event.path);
            }
        } while (in.ok() && !in.finished());
        EXPECT_TRUE(in.finished());
        return all;
    }

    Store store;
    Service service{store, "", [] { return Time{}; }};
    EventLog &log = store.events();
    Session &reader = service.open({}, true);
};

} // namespace

// What is replaced before its turn comes is left to the next fetch.
TEST_F(EventPartsTest, AFetchGetsWhatWaitedWhenItBegan) {
    reader.wake_sent();
    change("/a", 30000);
    const Request fetch = begin(reader, Op::events_get);
    EXPECT_EQ(fetch.task->step(), State::working);
    EXPECT_FALSE(reader.waiting());
    change("/a", 2); // before the first one is found
    change("/b", 1);
    EXPECT_TRUE(reader.waiting());
    EXPECT_EQ(fetch.task->step(), State::working);
    std::vector<std::string> all = paths(fetch.task->take_frame(true), true);
    ASSERT_GT(all.size(), 100U);
    EXPECT_EQ(all.at(0), "/");
    EXPECT_EQ(all.at(1), "/a/2");
    const std::string next = "/a/" + std::to_string(all.size() + 1);
    EventLog::Staged staged;
    log.stage(staged, Event{mlr_event_set, next}, 0);
    log.stage(staged);
    log.close_group();
    log.publish({});
    service.trim_events();
    EXPECT_EQ(log.published().events().front().event.path, "/a/" + std::to_string(all.size() + 2))
        << "what was taken is forgotten";

    int parts = 2;
    for (std::uint64_t before = 0; fetch.task->step() == State::working; ++parts) {
        ASSERT_TRUE(reader.keeps_after());
        EXPECT_GT(*reader.keeps_after(), before);
        before = *reader.keeps_after();
    }
    EXPECT_EQ(parts, 59);
    for (const std::string &path : paths(fetch.task->take_frame(false), false)) {
        all.push_back(path);
    }
    ASSERT_EQ(all.size(), 29998U); // the notice, and all but three
    EXPECT_EQ(std::count(all.begin(), all.end(), next), 0);
    EXPECT_EQ(all.back(), "/a/29999");
    EXPECT_EQ(tavtest::fetched(reader),
              (std::vector<std::string>{"2 /a/0", "2 /a/1", "2 /b/0", "2 " + next}));
    EXPECT_FALSE(fetch.task->is_work());
}

// In both directions of the merging, and from its first step on.
TEST_F(EventPartsTest, AFetchGoesOnWhileManyAreMerged) {
    for (const std::size_t number : {5000U, 25000U}) { // fewer than in the log, or more
        change("/a", 10000);
        change("/b", 10000);
        merge();
        tavtest::fetched(reader);
        change("/b", 10000);
        merge();
        const Request fetch = begin(reader, Op::events_get);
        EXPECT_EQ(fetch.task->step(), State::working);
        change("/b", number);
        EXPECT_TRUE(log.merges());
        while (fetch.task->step() == State::working) {
            log.merge();
        }
        const std::vector<std::string> all = paths(fetch.task->take_frame(false), false);
        EXPECT_EQ(std::set<std::string>(all.begin(), all.end()).size(), all.size());
        EXPECT_LT(all.size(), 10000U);
        merge();
        const std::vector<std::string> rest = tavtest::fetched(reader);
        EXPECT_EQ(rest.size(), number);
        EXPECT_EQ(rest.front(), "2 /b/0");
    }
}

TEST_F(EventPartsTest, APartOfAFetchHasFewBytes) {
    change(path_of(15), 100);
    const Request fetch = begin(reader, Op::events_get);
    EXPECT_EQ(fetch.task->step(), State::working);
    EXPECT_GE(fetch.task->made(), limits::reply_part_bytes);
    EXPECT_LT(fetch.task->made(), 2 * limits::reply_part_bytes);
}

TEST_F(EventPartsTest, AFetchAndTheNextGroupWaitUntilManyAreMerged) {
    change("/a", 5000);
    change("/b", 5000);
    EXPECT_TRUE(log.merges());
    const Request fetch = begin(reader, Op::events_get);
    Session &writer = service.open({}, true);
    const Request write = begin(writer, Op::transact, {tavtest::set_item("/c", "1")});
    EXPECT_EQ(write.task->step(), State::blocked);
    std::uint64_t releases = service.releases();
    while (log.merges()) {
        EXPECT_EQ(fetch.task->step(), State::blocked);
        service.commit();
        EXPECT_TRUE(store.has_group());
        EXPECT_EQ(service.releases(), releases);
        service.trim_events();
    }
    EXPECT_GT(service.releases(), releases) << "nobody else wakes them";
    EXPECT_EQ(fetch.task->step(), State::working);
    service.commit();
    EXPECT_FALSE(store.has_group());
}

TEST_F(EventPartsTest, AFetchOfAClientThatLeavesKeepsNothing) {
    change("/a", 5000);
    Request fetch = begin(reader, Op::events_get);
    EXPECT_EQ(fetch.task->step(), State::working);
    EXPECT_TRUE(reader.keeps_after());
    fetch.task.reset();
    EXPECT_FALSE(reader.keeps_after());
    change("/a", 1); // nothing follows this event any more
}

// Its events are forgotten, and it is disconnected.
TEST_F(EventPartsTest, AFetchOfAClientThatIsGivenUpEnds) {
    change("/a", 5000);
    const Request fetch = begin(reader, Op::events_get);
    EXPECT_EQ(fetch.task->step(), State::working);
    reader.overflow();
    service.trim_events();
    while (service.trims()) {
        service.trim_events();
    }
    EXPECT_TRUE(log.published().empty());
    EXPECT_EQ(fetch.task->step(), State::done);
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
    EXPECT_EQ(parts, 5);
    EXPECT_TRUE(log.published().empty());
}

// The service once did nothing else meanwhile. While they are too many, the next group waits: it
// would bring more.
TEST_F(EventPartsTest, TooManyAreForgottenInParts) {
    constexpr std::size_t number = 60000;
    change(path_of(6), number);
    const EventBatch &waiting = log.published();
    EXPECT_GT(waiting.bytes(), limits::event_bytes * 3 / 2);
    Session &writer = service.open({}, true);
    const Request write = begin(writer, Op::transact, {tavtest::set_item("/c", "1")});
    EXPECT_EQ(write.task->step(), State::blocked);
    service.trim_events();
    EXPECT_TRUE(reader.overflowed());
    EXPECT_TRUE(service.trims());
    EXPECT_GE(waiting.size(), number - 2 * 2048);
    const std::uint64_t releases = service.releases();
    while (service.trims()) {
        const bool too_many = waiting.bytes() > limits::event_bytes;
        EXPECT_EQ(service.releases() == releases, too_many);
        service.commit();
        EXPECT_EQ(store.has_group(), too_many);
        service.trim_events();
    }
    EXPECT_TRUE(waiting.empty());
}

TEST_F(EventPartsTest, AFetchDoesNotWaitUntilTooManyAreForgotten) {
    change(path_of(6), 60000);
    Session &other = service.open({}, true);
    other.register_events({"/", api_event_change, false}, {});
    change(path_of(7), 5000);
    const Request fetch = begin(other, Op::events_get);
    EXPECT_EQ(fetch.task->step(), State::blocked);
    const std::uint64_t releases = service.releases();
    while (log.merges()) {
        service.trim_events();
    }
    EXPECT_TRUE(reader.overflowed());
    EXPECT_GT(log.published().bytes(), limits::event_bytes);
    EXPECT_GT(service.releases(), releases);
    EXPECT_EQ(fetch.task->step(), State::working);
}
