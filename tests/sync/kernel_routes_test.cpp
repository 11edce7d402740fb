#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fakes/engine_fixture.h"
#include "fakes/fake_os.h"
#include "sync/errors.h"

namespace {

class KernelRoutes : public EngineTest {
protected:
    static constexpr int added = 24;
    static constexpr int removed = 25;

    void SetUp() override {
        EngineTest::SetUp();
        restart_with_eth0(1);
    }
    void announce(int type, const std::vector<CKernRoute> &routes) {
        engine().nl_route_update(type, routes);
    }
};

TEST_F(KernelRoutes, OfUntrackedLinksAreOnlyLogged) {
    const std::string line = "void CSync::nl_route_update(int, const std::vector<CKernRoute>&): "
                             "Ignoring event on unknown interface '1'";
    expect_info_at(3, line, [this] { announce(added, {kern_route(1, "fe80::1")}); });
    verbosity = 4;
    for (const int type : {added, removed, 99}) {
        forget();
        announce(type, {kern_route(1, "fe80::1")});
        EXPECT_EQ(record(), strings{"6 Info: " + line});
    }
}

TEST_F(KernelRoutes, AreLoggedAtLevelTwo) {
    expect_info_at(2, "ADDING route [3]: ::/0 : gw = fe80::1 (4)", [this] {
        restart_with_eth0(1);
        announce(added, {kern_route(3, "fe80::1")});
    });
    expect_info_at(2, "REMOVING route [3]: 2001:db8::/32 : gw = :: (9)", [this] {
        restart_with_eth0(1);
        announce(removed, {kern_route(3, "::", 9, "2001:db8::", 32)});
    });
}

TEST_F(KernelRoutes, ThatCannotBePrintedAreLoggedEmpty) {
    engine().state = 3;
    verbosity = 2;
    fake_os::state().inet_ntop.returns(0, 28);
    announce(added, {kern_route(3, "fe80::1")});
    EXPECT_EQ(lines(), strings{"ADDING route [3]: /0 : gw =  (4)"});
}

TEST_F(KernelRoutes, AreConvertedToTextOnlyForALineThatIsWritten) {
    engine().state = 3;
    verbosity = 1;
    fake_os::state().inet_ntop.returns(1).returns(1).returns(0, 28); // two texts, then no more
    announce(added, {kern_route(3, "fe80::1")});
    verbosity = 2;
    announce(added, {kern_route(3, "fe80::1"), kern_route(3, "fe80::1")});
    EXPECT_EQ(lines(), (strings{"ADDING route [3]: ::/0 : gw = fe80::1 (4)",
                                "ADDING route [3]: /0 : gw =  (4)"}));
}

TEST_F(KernelRoutes, OfAnotherKindOfEventAreNeitherTakenNorLogged) {
    verbosity = 4;
    announce(26, {kern_route(3, "fe80::1")});
    EXPECT_EQ(record(), strings{});
    EXPECT_EQ(gateway(3), "");
}

TEST_F(KernelRoutes, AStaticDefaultRouteBecomesTheGateway) {
    verbosity = 4;
    announce(added, {kern_route(3, "fe80::1")});
    EXPECT_EQ(record(), (strings{"set_leaf(~/1/IPv6/Default Gateway/Value = fe80::1)",
                                 "6 Info: ADDING route [3]: ::/0 : gw = fe80::1 (4)"}));
    ASSERT_TRUE(entry(3).gateway);
    EXPECT_EQ(entry(3).gateway->ifindex, 3);
    EXPECT_EQ(entry(3).gateway->protocol, 4);
    EXPECT_EQ(gateway(3), "fe80::1");
}

TEST_F(KernelRoutes, AnAllZeroDestinationOfAnyLengthIsADefaultRoute) {
    announce(added, {kern_route(3, "fe80::1", 4, "::", 96)});
    EXPECT_EQ(gateway(3), "fe80::1");
    EXPECT_EQ(entry(3).gateway->dst_len, 96);
}

struct skip_t {
    CKernRoute route;
    const char *line;
};

TEST_F(KernelRoutes, OthersAreSkippedForTheFirstReasonThatApplies) {
    const char *const no_gateway = "Skipping route with no gateway...";
    const char *const no_default = "Skipping non-default gateway route...";
    const char *const not_static = "Skipping non-STATIC gateway...";
    const std::vector<skip_t> cases = {{kern_route(3, "::"), no_gateway},
                                       {kern_route(3, "::", 9, "2001:db8::", 32), no_gateway},
                                       {kern_route(3, "fe80::1", 4, "2001:db8::", 32), no_default},
                                       {kern_route(3, "fe80::1", 9, "2001:db8::", 32), no_default},
                                       {kern_route(3, "fe80::1", 3), not_static},
                                       {kern_route(3, "fe80::1", 9), not_static},
                                       {kern_route(3, "fe80::1", 0), not_static},
                                       {kern_route(3, "fe80::1", 2), not_static}};
    for (const auto &one : cases) {
        expect_info_at(4, one.line, [this, &one] {
            restart_with_eth0(1);
            announce(added, {one.route});
        });
        verbosity = 4;
        restart_with_eth0(1);
        announce(added, {one.route});
        EXPECT_EQ(lines().size(), 2U);
        EXPECT_EQ(lines().front(), one.line);
        EXPECT_EQ(lines().back().find("ADDING route [3]: "), 0U);
        EXPECT_EQ(effects(), strings{});
        EXPECT_EQ(gateway(3), "");
        verbosity = 0;
    }
}

TEST_F(KernelRoutes, SkippedOnesDoNotChangeTheKnownGateway) {
    know_gateway(3, "fe80::1");
    announce(added, {kern_route(3, "fe80::2", 9), kern_route(3, "::"),
                     kern_route(3, "fe80::3", 4, "2001:db8::", 32)});
    EXPECT_EQ(gateway(3), "fe80::1");
    EXPECT_EQ(effects(), strings{});
}

TEST_F(KernelRoutes, TheKnownGatewayIsNotWrittenAgain) {
    know_gateway(3, "fe80::1");
    expect_info_at(4, "Skipping already-configured gateway...",
                   [this] { announce(added, {kern_route(3, "fe80::1")}); });
    EXPECT_EQ(effects(), strings{});
}

TEST_F(KernelRoutes, AnotherStaticDefaultRouteReplacesTheKnownOne) {
    verbosity = 4;
    know_gateway(3, "fe80::1");
    announce(added, {kern_route(3, "fe80::2")});
    EXPECT_EQ(record(), (strings{"6 Info: Replaced exising static route with a new one - "
                                 "removing old route",
                                 "kernel: delete ::/0 via fe80::1 dev 3",
                                 "set_leaf(~/1/IPv6/Default Gateway/Value = fe80::2)",
                                 "6 Info: ADDING route [3]: ::/0 : gw = fe80::2 (4)"}));
    EXPECT_EQ(gateway(3), "fe80::2");
}

TEST_F(KernelRoutes, AnAdoptedOneKeepsAllFieldsFromTheKernel) {
    know_gateway(3, "fe80::1");
    CFullRoute &known = *entry(3).gateway;
    known.dst = fake_libnl::addr("2001:db8::");
    known.dst_len = 32;
    known.protocol = 9;
    known.ifindex = 7;
    announce(added, {kern_route(3, "fe80::2", 4, "::", 96)});
    EXPECT_EQ(effects().front(), "kernel: delete ::/32 via fe80::1 dev 7");
    ASSERT_TRUE(entry(3).gateway);
    EXPECT_EQ(gateway(3), "fe80::2");
    EXPECT_EQ(text_of(entry(3).gateway->dst), "::");
    EXPECT_EQ(entry(3).gateway->dst_len, 96);
    EXPECT_EQ(entry(3).gateway->protocol, 4);
    EXPECT_EQ(entry(3).gateway->ifindex, 3);
}

TEST_F(KernelRoutes, AReplacementIsLoggedAtLevelOne) {
    expect_info_at(1, "Replaced exising static route with a new one - removing old route", [this] {
        restart_with_eth0(1);
        know_gateway(3, "fe80::1");
        announce(added, {kern_route(3, "fe80::2")});
    });
}

TEST_F(KernelRoutes, AReplacedOneIsDeletedInEveryStateAndTheStoreWrittenInOneAlone) {
    for (const int state : {0, 1, 2, 3}) {
        restart_with_eth0(1);
        engine().state = state;
        announce(added, {kern_route(3, "fe80::1"), kern_route(3, "fe80::2")});
        EXPECT_EQ(effects(), strings{"kernel: delete ::/0 via fe80::1 dev 3"}) << "state " << state;
        EXPECT_EQ(gateway(3), "fe80::2");
    }
}

TEST_F(KernelRoutes, TheDeletionReportOfTheReplacedOneChangesNothing) {
    announce(added, {kern_route(3, "fe80::1"), kern_route(3, "fe80::2")});
    forget();
    announce(removed, {kern_route(3, "fe80::1")});
    EXPECT_EQ(effects(), strings{});
    EXPECT_EQ(gateway(3), "fe80::2");
}

TEST_F(KernelRoutes, ARemovedGatewayLeavesStoreAndTable) {
    know_gateway(3, "fe80::1");
    store_gateway(1, "fe80::1");
    verbosity = 2;
    announce(removed, {kern_route(3, "fe80::1")});
    EXPECT_EQ(record(), (strings{"remove_node(~/1/IPv6/Default Gateway)",
                                 "6 Info: REMOVING route [3]: ::/0 : gw = fe80::1 (4)"}));
    EXPECT_EQ(gateway(3), "");
}

TEST_F(KernelRoutes, DuringDiscoveryAreOnlyRecorded) {
    for (const int state : {0, 1, 2, 3}) {
        restart_with_eth0(1);
        engine().state = state;
        announce(added, {kern_route(3, "fe80::1")});
        EXPECT_EQ(gateway(3), "fe80::1");
        announce(removed, {kern_route(3, "fe80::1")});
        EXPECT_EQ(gateway(3), "");
        EXPECT_EQ(effects(), strings{}) << "state " << state;
    }
}

TEST_F(KernelRoutes, AFailingWriteEndsTheBatchAndKeepsTheTable) {
    fake_tav::on_call("set_leaf").returns(-1);
    EXPECT_THROW(announce(added, {kern_route(3, "fe80::1"), kern_route(3, "fe80::2")}), sync_err);
    EXPECT_EQ(gateway(3), "fe80::1");
}

TEST_F(KernelRoutes, AFailingDeletionOfTheReplacedOneKeepsIt) {
    know_gateway(3, "fe80::1");
    fake_libnl::state().send_auto_complete.then(-5);
    EXPECT_EQ(thrown<netlink_err>([this] { announce(added, {kern_route(3, "fe80::2")}); }),
              "nl_send_auto_complete");
    EXPECT_EQ(gateway(3), "fe80::1");
    EXPECT_EQ(fake_tav::writes(), 0U);
}

} // namespace
