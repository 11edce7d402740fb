// The queue of a client's events, and which events are added to it.
#include <gtest/gtest.h>

#include "protocol/limits.h"
#include "service/session.h"

using namespace tav;

namespace {

using Names = std::vector<std::string>;

Names names(const std::vector<Event> &events) {
    Names result;
    for (const Event &event : events) {
        result.push_back(std::to_string(event.command) + " " + event.path);
    }
    return result;
}

const Event set_a{mlr_event_set, "/a"};
const Event set_b{mlr_event_set, "/b"};
const Event removed_a{mlr_event_removed, "/a"};

} // namespace

TEST(EventQueue, KeepsTheOrder) {
    EventQueue queue;
    queue.add(set_b, true);
    queue.add(set_a, true);
    EXPECT_EQ(names(queue.take()), (Names{"2 /b", "2 /a"}));
    EXPECT_TRUE(queue.empty());
}

TEST(EventQueue, AMergedEventMovesToTheEndSoThatTheLastOneIsCurrent) {
    EventQueue queue;
    queue.add(set_a, true);
    queue.add(removed_a, true);
    queue.add(set_b, true);
    queue.add(set_a, true);
    EXPECT_EQ(names(queue.take()), (Names{"3 /a", "2 /b", "2 /a"}));
}

TEST(EventQueue, MergingNeverEmptiesTheQueue) {
    EventQueue queue;
    for (int i = 0; i < 10; ++i) {
        queue.add(set_a, true);
        EXPECT_EQ(queue.size(), 1U);
    }
}

TEST(EventQueue, AForeignEventStaysForeignWhenAnOwnOneIsMergedIntoIt) {
    EventQueue queue;
    queue.add(set_a, true);
    queue.add(set_a, false);
    EXPECT_TRUE(queue.holds_foreign("/a"));
    queue.add(set_b, false);
    EXPECT_FALSE(queue.holds_foreign("/b"));
    queue.take();
    EXPECT_FALSE(queue.holds_foreign("/a"));
}

TEST(EventQueue, ANoticeIsNoChange) {
    EventQueue queue;
    queue.add(Event{mlr_event_notice, "/a"}, true);
    EXPECT_FALSE(queue.holds_foreign("/a"));
}

TEST(EventQueue, ItsNumberIsLimited) {
    EventQueue queue;
    for (std::size_t i = 0; i < limits::pending_events; ++i) {
        ASSERT_TRUE(queue.add(Event{mlr_event_set, "/" + std::to_string(i)}, true));
    }
    EXPECT_FALSE(queue.add(set_a, true));
    EXPECT_TRUE(queue.add(Event{mlr_event_set, "/7"}, true)) << "a merged event takes no room";
    EXPECT_EQ(queue.take().size(), limits::pending_events);
    EXPECT_TRUE(queue.add(set_a, true));
}

TEST(EventQueue, ItsBytesAreLimitedSoThatAFetchFitsOneFrame) {
    EventQueue queue;
    const std::string stem(limits::path_bytes - 10, 'x');
    std::size_t bytes = 0;
    std::size_t number = 0;
    while (queue.add(Event{mlr_event_set, stem + std::to_string(number)}, true)) {
        bytes += stem.size();
        ASSERT_LT(++number, limits::pending_events);
    }
    EXPECT_GT(bytes, limits::pending_bytes / 2);
    Writer writer;
    put_all(writer, queue.take());
    EXPECT_FALSE(writer.too_large());
}

namespace {

class SessionTest : public ::testing::Test {
protected:
    Names fetched() {
        bool drain = false;
        return names(session.fetch(now, drain));
    }
    void settle() { fetched(); }

    Time now = Time(std::chrono::seconds(1000));
    Session session{Ticket{1, 2}, Credentials{3, 4, 5, {}}, true};
};

} // namespace

TEST_F(SessionTest, ARegistrationIsAnsweredByOneNotice) {
    EXPECT_EQ(session.register_events(Registration{"/a", 1, false}, now), api_status_ok);
    EXPECT_EQ(fetched(), Names{"1 /a"});
    EXPECT_EQ(fetched(), Names{});
}

TEST_F(SessionTest, OnlyWhatIsAtOrBelowARegisteredPathIsQueuedAndOnceOnly) {
    session.register_events(Registration{"/a", 1, false}, now);
    session.register_events(Registration{"/a/b", 1, false}, now);
    settle();
    for (const char *path : {"/a", "/a/b/c", "/ab", "/x"}) {
        session.offer(Event{mlr_event_set, path}, false, now);
    }
    EXPECT_EQ(fetched(), (Names{"2 /a", "2 /a/b/c"}));
}

TEST_F(SessionTest, OwnChangesCauseNoEventsUnlessRequested) {
    session.register_events(Registration{"/a", 1, false}, now);
    session.register_events(Registration{"/b", 1, true}, now);
    settle();
    session.offer(set_a, true, now);
    session.offer(set_b, true, now);
    EXPECT_EQ(fetched(), Names{"2 /b"});
}

TEST_F(SessionTest, ASecondRegistrationOfAPathReplacesTheFlag) {
    session.register_events(Registration{"/a", 1, true}, now);
    session.register_events(Registration{"/a", 1, false}, now);
    settle();
    session.offer(set_a, true, now);
    EXPECT_EQ(fetched(), Names{});
    EXPECT_EQ(session.status().registrations, 1U);
}

TEST_F(SessionTest, BadRegistrationsAreRefused) {
    EXPECT_EQ(session.register_events(Registration{"a", 1, false}, now), api_status_bad_path);
    EXPECT_EQ(session.register_events(Registration{"/a", 2, false}, now), api_status_refused);
    for (std::size_t i = 0; i < limits::registrations_per_client; ++i) {
        const std::string path = "/" + std::to_string(i);
        EXPECT_EQ(session.register_events(Registration{path, 1, false}, now), api_status_ok);
    }
    EXPECT_EQ(session.register_events(Registration{"/more", 1, false}, now),
              api_status_too_many_registrations);
}

TEST_F(SessionTest, AnOverfullQueueEndsTheClient) {
    session.register_events(Registration{"/", 1, false}, now);
    for (std::size_t i = 0; i <= limits::pending_events; ++i) {
        session.offer(Event{mlr_event_set, "/" + std::to_string(i)}, false, now);
    }
    EXPECT_TRUE(session.overflowed());
}
