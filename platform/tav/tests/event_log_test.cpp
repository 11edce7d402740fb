// The log of events that clients share, and which of them each client gets.
#include <gtest/gtest.h>

#include "protocol/limits.h"
#include "support/store_unit.h"

using namespace tav;

namespace {

using Names = std::vector<std::string>;

class EventLogTest : public ::testing::Test {
protected:
    struct Client : Session {
        Client(SessionId number, EventLog &events)
            : Session(Ticket{number, 2}, Credentials{3, 4, 5, {}}, true, events) {}

        api_status_t watch(const std::string &path, bool own = false) {
            return register_events(Registration{path, api_event_change, own}, Time{});
        }
        Names fetched() { return tavtest::fetched(*this); }
    };

    void stage(SessionId author, const std::vector<Event> &events) {
        EventLog::Staged staged;
        for (const Event &event : events) {
            log.stage(staged, event, author);
        }
        log.stage(staged);
    }
    void change(SessionId author, const std::vector<Event> &events) {
        stage(author, events);
        publish();
    }
    void publish() {
        log.close_group();
        log.publish(Time{});
    }

    const Event set_a{mlr_event_set, "/a"};
    const Event set_b{mlr_event_set, "/b"};
    const Event removed_a{mlr_event_removed, "/a"};

    EventLog log;
    Client one{1, log};
    Client two{2, log};
    static constexpr SessionId somebody = 9;
};

} // namespace

TEST_F(EventLogTest, AClientThatLeavesIsForgottenAtEachOfItsPaths) {
    one.watch("/a");
    {
        Client three(3, log);
        three.watch("/a");
        three.watch("/b");
    }
    change(somebody, {set_a, set_b});
    EXPECT_EQ(one.fetched().back(), "2 /a"); // and nobody is called who is gone
    EXPECT_EQ(log.published().size(), 1U);   // nobody waits for /b
}

// Until it is disconnected, its writes once counted as up to date.
TEST_F(EventLogTest, AClientWithTooManyEventsHasNotSeenThem) {
    one.watch("/");
    one.fetched();
    change(somebody, {set_a});
    one.overflow();
    EXPECT_TRUE(one.unseen("/a").there);
}

TEST_F(EventLogTest, EventsOfOneGroupAreMergedToo) {
    one.watch("/");
    one.fetched();
    stage(somebody, {set_a, set_b});
    stage(two.id(), {set_a});
    publish();
    EXPECT_EQ(one.fetched(), (Names{"2 /b", "2 /a"}));
}

TEST_F(EventLogTest, MergingIsTheSameWhicheverIsLarger) {
    const std::string removed = std::to_string(mlr_event_removed) + " /a";
    const std::vector<Event> few{set_a};
    const std::vector<Event> many{set_a, set_b, removed_a};
    for (const bool many_later : {false, true}) {
        one.watch("/");
        two.watch("/");
        one.fetched();
        two.fetched();
        change(somebody, many_later ? few : many);
        change(one.id(), many_later ? many : few);
        EXPECT_TRUE(one.unseen("/a").there);
        EXPECT_EQ(one.fetched().size(), many_later ? 1U : 3U); // of /a the change by somebody
        EXPECT_EQ(two.fetched(),
                  many_later ? (Names{"2 /a", "2 /b", removed}) : (Names{"2 /b", removed, "2 /a"}));
        EXPECT_EQ(log.published().size(), 3U);
        log.forget(log.end());
        EXPECT_EQ(log.published().bytes(), 0U);
    }
}

// Their author has nothing unseen meanwhile, however many there are.
TEST_F(EventLogTest, ManyAreMergedInParts) {
    const auto set_from = [](int first, int number) {
        std::vector<Event> events;
        for (int i = first; i < first + number; ++i) {
            events.push_back(Event{mlr_event_set, "/x/" + std::to_string(i)});
        }
        return events;
    };
    two.watch("/");
    for (const int number : {11000, 15000}) { // the later ones are more, or fewer
        one.watch("/");
        one.fetched();
        change(two.id(), set_from(0, number));
        EXPECT_FALSE(log.merges()) << "there is nothing to merge them with";
        change(two.id(), set_from(5000, 26000 - number));
        const std::string last = "/x/" + std::to_string(30999 - number);
        int parts = 1;
        for (; log.merges(); ++parts) {
            EXPECT_TRUE(one.unseen("/x/0").there);
            EXPECT_TRUE(one.unseen("/x/7000").there);
            EXPECT_TRUE(one.unseen(last).there);
            EXPECT_FALSE(two.unseen("/x").there);
            EXPECT_EQ(two.unseen("/x").examined, 0U);
            log.merge();
        }
        EXPECT_EQ(parts, 6);
        Names expected;
        for (const auto &[first, end] : {std::pair(0, 5000), std::pair(31000 - number, number),
                                         std::pair(5000, 31000 - number)}) {
            for (int i = first; i < end; ++i) {
                expected.push_back("2 /x/" + std::to_string(i));
            }
        }
        EXPECT_EQ(one.fetched(), expected);
        while (!log.forget(log.end())) {
        }
        EXPECT_EQ(log.published().bytes(), 0U);
    }
    one.watch("/");
    one.fetched();
    change(somebody, set_from(0, 3000));
    change(somebody, set_from(0, 3000));
    change(somebody, {set_a}); // begins with the rest of the merging
    EXPECT_EQ(one.fetched().size(), 3001U);
}

TEST_F(EventLogTest, WhatAllHaveFetchedIsForgotten) {
    one.watch("/");
    one.fetched();
    change(somebody, {set_a});
    change(somebody, {set_b});
    EXPECT_EQ(log.published().size(), 2U);
    log.forget(log.published().events().front().position);
    EXPECT_EQ(log.published().size(), 1U);
    log.forget(log.end());
    EXPECT_TRUE(log.published().empty());
    EXPECT_EQ(log.published().bytes(), 0U);
}

TEST_F(EventLogTest, NobodysEventsAreNotKept) {
    change(somebody, {set_a});
    one.watch("/b");
    change(somebody, {set_a});
    EXPECT_TRUE(log.published().empty());
}

TEST_F(EventLogTest, AChangeBelowAPathIsUnseenThere) {
    one.watch("/");
    one.fetched();
    change(somebody, {Event{mlr_event_set, "/a/b"}, Event{mlr_event_set, "/a-c"}});
    EXPECT_TRUE(one.unseen("/a").there);
    EXPECT_TRUE(one.unseen("/a/b").there);
    EXPECT_FALSE(one.unseen("/a/b/c").there);
    EXPECT_FALSE(one.unseen("/a/").there);
    EXPECT_TRUE(one.unseen("/a-c").there);
    EXPECT_FALSE(one.unseen("/a-").there);
}

// Looking for a foreign one among very many own ones once took seconds.
TEST_F(EventLogTest, FewEventsAreExaminedToFindAnUnseenOne) {
    constexpr std::size_t most = 10000;
    one.watch("/", true);
    one.fetched();
    std::vector<Event> events;
    for (std::size_t i = 0; i < most; ++i) {
        events.push_back(Event{mlr_event_set, "/a/" + std::to_string(i)});
    }
    change(one.id(), events);
    EXPECT_FALSE(one.unseen("/a").there);
    EXPECT_EQ(one.unseen("/a").examined, most);
    change(one.id(), {set_a});
    EXPECT_TRUE(one.unseen("/a").there) << "too many";
    EXPECT_EQ(one.unseen("/a").examined, most);
    EXPECT_FALSE(one.unseen("/a/7").there);
    two.watch("/a/b");
    two.watch("/b");
    change(somebody, {set_a});
    EXPECT_FALSE(two.unseen("/a").there) << "only what it has registered for matters";
    EXPECT_EQ(two.unseen("/a").examined, 0U);
    one.fetched();
    EXPECT_FALSE(one.unseen("/a").there);
}

TEST_F(EventLogTest, AForeignEventStaysForeignWhenAnOwnOneIsMergedIntoIt) {
    one.watch("/");
    one.fetched();
    change(somebody, {set_a});
    change(one.id(), {set_a});
    change(one.id(), {set_a});
    EXPECT_TRUE(one.unseen("/a").there);
    EXPECT_EQ(one.fetched(), Names{"2 /a"});
}

TEST_F(EventLogTest, AForeignEventThatWasFetchedDoesNotMakeOwnOnesForeign) {
    one.watch("/");
    two.watch("/"); // keeps the events in the log
    change(somebody, {set_a});
    one.fetched();
    change(one.id(), {set_a});
    EXPECT_FALSE(one.waiting());
    change(somebody, {set_b});
    EXPECT_FALSE(one.unseen("/a").there);
    EXPECT_EQ(one.fetched(), Names{"2 /b"});
    EXPECT_EQ(two.fetched(), (Names{"1 /", "2 /a", "2 /b"}));
}

TEST_F(EventLogTest, ARegistrationIsAnsweredByOneNoticeInItsPlace) {
    EXPECT_EQ(one.watch("/a"), api_status_ok);
    change(somebody, {set_a});
    EXPECT_EQ(one.watch("/b"), api_status_ok);
    change(somebody, {set_b});
    EXPECT_FALSE(one.unseen("/c").there);
    EXPECT_EQ(one.pending(), 4U);
    EXPECT_EQ(one.fetched(), (Names{"1 /a", "2 /a", "1 /b", "2 /b"}));
    one.watch("/a");
    one.watch("/a");
    EXPECT_EQ(one.fetched(), Names{"1 /a"});
}

TEST_F(EventLogTest, OnlyWhatIsAtOrBelowARegisteredPathIsDeliveredAndOnceOnly) {
    one.watch("/a");
    one.watch("/a/b");
    one.fetched();
    for (const char *path : {"/a", "/a/b/c", "/ab", "/x"}) {
        change(somebody, {Event{mlr_event_set, path}});
    }
    EXPECT_EQ(one.fetched(), (Names{"2 /a", "2 /a/b/c"}));
}

TEST_F(EventLogTest, ARegistrationConcernsLaterChangesOnly) {
    one.watch("/a");
    two.watch("/");
    change(somebody, {set_a, set_b});
    one.watch("/b");
    EXPECT_EQ(one.fetched(), (Names{"1 /a", "2 /a", "1 /b"}));
}

TEST_F(EventLogTest, ASecondRegistrationOfAPathReplacesTheFlag) {
    one.watch("/a", true);
    one.watch("/a", false);
    one.fetched();
    change(one.id(), {set_a});
    EXPECT_EQ(one.fetched(), Names{});
    EXPECT_EQ(one.registered(), 1U);
}
