// The effect of each fault that the test build of the service injects on its client; other clients
// are not affected.
#include "support/store_fixture.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <set>

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

    int read_result() {
        api_status_t status = api_status_none;
        toolkit::CElement value;
        element_property_t property = element_property_none;
        return victim->tav.get_leaf("/n/x", status, value, property);
    }

    void expect_lost(const std::string &why) {
        EXPECT_LT(read_result(), 0);
        ASSERT_FALSE(reports().empty());
        EXPECT_EQ(reports().back().second.find("connection to the settings service lost: " + why),
                  0U)
            << reports().back().second;
        EXPECT_NE(tavd->errors().find("fault: "), std::string::npos);
        expect_others_served();
    }

    void expect_others_served() {
        EXPECT_EQ(other->set("/n/other", "1"), api_status_ok);
        EXPECT_EQ(other->get("/n/other"), "1");
    }

    std::unique_ptr<Client> victim;
    std::unique_ptr<Client> other;
};

TEST_F(FaultyServiceTest, WithoutAPlanItRefusesToStart) {
    ::unsetenv("TAVD_FAULT");
    Process service(dir, "tavd", tavd_arguments({"--memory"}));
    EXPECT_EQ(service.wait(), 1);
    EXPECT_NE(service.errors().find("TAVD_FAULT must hold a plan"), std::string::npos);
}

TEST_F(FaultyServiceTest, ARefusedReadOrListingHasTheStatusAndTheConnectionStays) {
    stage("refuse:on=read+list:limit=2:status=5");
    EXPECT_EQ(other->set("/n/x", "1"), api_status_ok);
    EXPECT_EQ(victim->get("/n/x"), "status 5");
    EXPECT_EQ(victim->list("/n"), std::vector<std::string>{"status 5"});
    EXPECT_EQ(victim->get("/n/x"), "1");
    expect_others_served();
}

TEST_F(FaultyServiceTest, ARefusedWriteOrRemovalChangesNothing) {
    stage("refuse:on=write+remove");
    EXPECT_EQ(other->set("/n/x", "1"), api_status_ok);
    EXPECT_EQ(victim->set("/n/x", "2"), api_status_refused);
    EXPECT_EQ(victim->remove("/n"), api_status_refused);
    EXPECT_EQ(other->get("/n/x"), "1");
}

TEST_F(FaultyServiceTest, AMalformedReplyEndsTheConnection) {
    for (const char *seed : {"1", "2", "3", "4"}) {
        stage(std::string("garble:on=read:seed=") + seed);
        expect_lost("the service sent a malformed reply");
        stop();
    }
}

TEST_F(FaultyServiceTest, ACallWithoutAReplyHasBeenDone) {
    stage("hang:on=write:limit=1");
    api_status_t status = api_status_ok;
    EXPECT_LT(
        victim->tav.set_leaf("/n/x", toolkit::CElement("1", -1), status, mlr_tribool_unset, ""), 0);
    EXPECT_EQ(other->get("/n/x"), "1");
    expect_lost("the service did not answer in time");
}

TEST_F(FaultyServiceTest, ACallWithoutAReplyHasNotBeenDoneIfThePlanSaysSo) {
    stage("hang:on=write:undone");
    api_status_t status = api_status_ok;
    EXPECT_LT(
        victim->tav.set_leaf("/n/x", toolkit::CElement("1", -1), status, mlr_tribool_unset, ""), 0);
    EXPECT_EQ(other->get("/n/x"), "status 2");
}

TEST_F(FaultyServiceTest, AReplyIsCutInTheMiddle) {
    stage("cut:on=read");
    expect_lost("the service closed the connection");
}

TEST_F(FaultyServiceTest, AnOverflowEndsTheConnectionAfterTheReply) {
    stage("overflow:on=read:limit=1");
    EXPECT_EQ(read_result(), 0);
    expect_lost(""); // the result depends on when the next request finds the connection ended
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

TEST_F(FaultyServiceTest, ARemovedPathIsGoneBeforeTheCallAndCausesItsEvents) {
    stage("vanish:on=list:limit=1:path=/n/sub");
    EXPECT_EQ(other->set("/n/sub/x", "1"), api_status_ok);
    EXPECT_EQ(other->set("/n/y", "1"), api_status_ok);
    victim->wait_events(2);
    EXPECT_EQ(victim->get("/n/sub/x"), "1");
    EXPECT_EQ(victim->list("/n"), std::vector<std::string>{"y"});
    EXPECT_EQ(other->get("/n/sub/x"), "status 2");
    EXPECT_EQ(victim->wait_events(1), std::vector<std::string>{"3 /n/sub/x"});
}

TEST_F(FaultyServiceTest, APlanCountsAndEndsWithItsFile) {
    const std::string file = dir.file("faults");
    std::ofstream(file) << "on";
    stage("refuse:on=write:after=1:every=2:limit=2:while=" + file);
    std::vector<api_status_t> seen;
    for (int i = 0; i < 7; ++i) {
        seen.push_back(victim->set("/n/x", std::to_string(i)));
    }
    const api_status_t ok = api_status_ok;
    const api_status_t no = api_status_refused;
    EXPECT_EQ(seen, (std::vector<api_status_t>{ok, ok, no, ok, no, ok, ok}));
    stop();
    stage("refuse:on=write:while=" + file);
    EXPECT_EQ(victim->set("/n/x", "1"), no);
    ASSERT_EQ(std::remove(file.c_str()), 0);
    EXPECT_EQ(victim->set("/n/x", "1"), ok);
}

TEST_F(FaultyServiceTest, ChanceAffectsSomeCallsButNotAll) {
    stage("refuse:on=write:chance=50");
    std::set<api_status_t> seen;
    for (int i = 0; i < 64; ++i) {
        seen.insert(victim->set("/n/x", std::to_string(i)));
    }
    EXPECT_EQ(seen, (std::set<api_status_t>{api_status_ok, api_status_refused}));
}

TEST_F(FaultyServiceTest, AClientWithAWatchdogGetsFaultsToo) {
    stage("refuse:on=read");
    api_status_t status = api_status_none;
    EXPECT_EQ(other->get("/n/x"), "status 2");
    EXPECT_EQ(other->tav.watchdog_register(status, "dog", 60, true), 0);
    EXPECT_EQ(other->get("/n/x"), "status 5");
}

} // namespace
