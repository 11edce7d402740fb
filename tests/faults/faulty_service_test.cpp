// The faults that a client survives without a new connection: what it sees of them. Those that cost
// a connection are seen in the rebuilds of kernel/faults_test.cpp.
#include "support/store_fixture.h"

#include <algorithm>
#include <cstdlib>

using namespace tavtest;

namespace {

class FaultyServiceTest : public StoreTest {
protected:
    // Serves with this plan; one client registers, the other one does not.
    void stage(const std::string &plan) {
        ::setenv("TAVD_FAULT", plan.c_str(), 1);
        start();
        ::setenv("TAV_TIMEOUT_MS", "5000", 1);
        victim = std::make_unique<Client>();
        ::unsetenv("TAV_TIMEOUT_MS");
        ASSERT_TRUE(victim->connected());
        ASSERT_EQ(victim->watch("/n"), api_status_ok);
        victim->settle();
        other = std::make_unique<Client>();
    }

    std::unique_ptr<Client> victim;
    std::unique_ptr<Client> other;
};

TEST_F(FaultyServiceTest, ARefusedReadOrListingHasTheStatusAndTheConnectionStays) {
    stage("refuse:on=read+list:limit=2");
    EXPECT_EQ(other->set("/n/x", "1"), api_status_ok);
    EXPECT_EQ(victim->get("/n/x"), "status 5");
    EXPECT_EQ(victim->list("/n"), std::vector<std::string>{"status 5"});
    EXPECT_EQ(victim->get("/n/x"), "1");
}

TEST_F(FaultyServiceTest, ARefusedWriteOrRemovalChangesNothing) {
    stage("refuse:on=write+remove");
    EXPECT_EQ(other->set("/n/x", "1"), api_status_ok);
    EXPECT_EQ(victim->set("/n/x", "2"), api_status_refused);
    EXPECT_EQ(victim->remove("/n"), api_status_refused);
    EXPECT_EQ(other->get("/n/x"), "1");
}

TEST_F(FaultyServiceTest, AnEchoSendsAClientOneEventForEachOfItsOwnChanges) {
    stage("echo");
    EXPECT_EQ(victim->set("/n/x", "1"), api_status_ok);
    EXPECT_EQ(victim->wait_events(1), std::vector<std::string>{"2 /n/x"});
    EXPECT_EQ(victim->set("/n/x", "1"), api_status_ok);
    EXPECT_EQ(other->set("/n/y", "1"), api_status_ok);
    EXPECT_EQ(victim->wait_events(1), std::vector<std::string>{"2 /n/y"});
}

TEST_F(FaultyServiceTest, ADuplicatedEventComesTwiceAndOnceMoreLater) {
    stage("duplicate");
    EXPECT_EQ(other->set("/n/x", "1"), api_status_ok);
    ASSERT_TRUE(becomes_readable(victim->fd()));
    const std::vector<std::string> twice{"2 /n/x", "2 /n/x"};
    EXPECT_EQ(victim->fetch(), twice);
    ASSERT_TRUE(becomes_readable(victim->fd()));
    EXPECT_EQ(victim->fetch(), std::vector<std::string>{"2 /n/x"});
    victim->settle();
    EXPECT_FALSE(readable(victim->fd()));
}

TEST_F(FaultyServiceTest, ReorderedEventsAreTheSameInAnotherOrder) {
    stage("reorder");
    std::vector<std::string> names;
    std::vector<std::string> texts;
    for (int i = 0; i < 20; ++i) {
        names.push_back("/n/" + std::to_string(i));
        texts.emplace_back("1");
    }
    other->set_all(names, texts);
    ASSERT_TRUE(becomes_readable(victim->fd()));
    std::vector<std::string> events = victim->fetch();
    std::vector<std::string> expected;
    for (const std::string &name : names) {
        expected.push_back("2 " + name);
    }
    EXPECT_NE(events, expected);
    std::sort(events.begin(), events.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(events, expected);
}

TEST_F(FaultyServiceTest, SpuriousReadinessComesWithoutAnEvent) {
    stage("spurious");
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(becomes_readable(victim->fd()));
        EXPECT_EQ(victim->fetch(), std::vector<std::string>{});
    }
}

} // namespace
