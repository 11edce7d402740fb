// Effects of the rules on gateways and interface nodes that a user may not expect.

#include <linux/rtnetlink.h>

#include <fstream>

#include "known_behaviours.h"

namespace {

using model::KnownBehaviourTest;

class KnownGatewayTest : public KnownBehaviourTest {};

// Gateways.

TEST_F(KnownGatewayTest, ASecondGatewayOfEqualMetricMakesBothInvisibleToAStart) {
    add_eth(1);
    store.make_interface(2);
    store.set_gateway(1, "fe80::1");
    start();
    store.set_gateway(2, "fe80::2");
    ASSERT_TRUE(settle());
    EXPECT_EQ(device.static_gateways("eth1"), std::vector<std::string>{"fe80::2"});
    EXPECT_EQ(stop_daemon(), 0);
    store.remove_gateway(2);
    start();
    EXPECT_FALSE(store.gateway(2));
    EXPECT_EQ(device.static_gateways("eth1"), std::vector<std::string>{"fe80::2"})
        << "nobody removes it";
    device.delete_route({"::/0", "fe80::2", "eth1"});
    ASSERT_TRUE(settle());
    EXPECT_EQ(store.gateway(1), "fe80::1");
}

TEST_F(KnownGatewayTest, AStaticDefaultRouteOfAnotherTableIsTreatedAsOneOfTheMainTable) {
    start();
    kt::kernel_route_t route{"::/0", "fe80::1", "eth0"};
    route.table = 100;
    device.add_route(route);
    EXPECT_TRUE(becomes([&] { return store.gateway(1) == "fe80::1"; }));
    synchronise();
    EXPECT_EQ(device.static_gateways("eth0"), std::vector<std::string>{"fe80::1"}); // of main
}

TEST_F(KnownGatewayTest, RemovingAGatewayEqualToTheAdvertisedRouterRemovesTheAdvertisedRoute) {
    start();
    kt::kernel_route_t advertised{"::/0", "fe80::9", "eth0"};
    advertised.protocol = RTPROT_RA;
    device.add_route(advertised);
    store.set_gateway(1, "fe80::9");
    ASSERT_TRUE(settle());
    store.remove_gateway(1);
    ASSERT_TRUE(settle());
    EXPECT_EQ(device.try_delete_route(advertised), ESRCH);
    EXPECT_EQ(store.gateway(1), "fe80::9") << "the kernel reported no static route as gone";
    store.remove_gateway(1);
    ASSERT_TRUE(settle());
    EXPECT_FALSE(store.gateway(1)) << "the second removal finds nothing, and that counts";
}

TEST_F(KnownGatewayTest, AStaticDefaultRouteOfAnotherMetricIsDoubledAndHalfRemoved) {
    start();
    kt::kernel_route_t route{"::/0", "fe80::1", "eth0"};
    route.metric = 100;
    device.add_route(route);
    ASSERT_TRUE(becomes([&] { return store.gateway(1) == "fe80::1"; }));
    synchronise();
    EXPECT_EQ(device.static_gateways("eth0").size(), 2U);
    store.remove_gateway(1);
    ASSERT_TRUE(settle());
    EXPECT_FALSE(store.gateway(1));
    EXPECT_EQ(device.static_gateways("eth0"), std::vector<std::string>{"fe80::1"});
    EXPECT_EQ(stop_daemon(), 0);
    start();
    EXPECT_TRUE(becomes([&] { return device.static_gateways("eth0").empty(); }));
    ASSERT_TRUE(settle());
    EXPECT_FALSE(store.gateway(1));
}

// A daemon that is a second or more behind the kernel: every cycle is slow, and many notifications
// are waiting.
class LateReportTest : public KnownBehaviourTest {
protected:
    void start_slow() { start(kt::preloaded({{"KT_SELECT_DELAY", "50"}})); }

    // The edit's synchronisation comes before the backlog; returns once it has read the store.
    void edit_during_a_backlog(const std::function<void()> &edit) {
        from = log().size();
        meanwhile([&] {
            for (std::size_t i = 0; i < backlog; ++i) {
                device.forge(RTNLGRP_LINK, kt::forged_link("backlog"));
            }
            edit();
        });
        after = log().wait_for(has_read, from);
        ASSERT_NE(after, 0U);
    }

    void expect_a_synchronisation_amid_the_backlog() {
        ASSERT_NE(log().wait_for(has_read, after), 0U);
        ASSERT_LT(log().count("Info: Skipping update for link 'backlog'", from), backlog);
    }

    static constexpr std::size_t backlog = 60;
    const std::string has_read = "Info: Synchronizing TAV with kernel settings...";
    std::size_t from = 0;
    std::size_t after = 0;
};

TEST_F(LateReportTest, AGatewayChangedThereAndBackIsRestoredByTheKernelsLastReport) {
    store.set_gateway(1, "fe80::1");
    start_slow();
    edit_during_a_backlog([&] { store.set_gateway(1, "fe80::2"); });
    store.set_gateway(1, "fe80::1");
    expect_a_synchronisation_amid_the_backlog();
    ASSERT_TRUE(settle());
    EXPECT_EQ(store.gateway(1), "fe80::1");
    EXPECT_EQ(device.static_gateways("eth0"), std::vector<std::string>{"fe80::1"});
}

// A synchronisation that finds no gateway writes the recorded one back until the kernel has
// reported its removal. If the user sets the same one in the meantime, nothing changes, so there is
// no event.
TEST_F(LateReportTest, AGatewaySetAgainBeforeItsRemovalIsReportedIsLost) {
    store.set_gateway(1, "fe80::1");
    start_slow();
    edit_during_a_backlog([&] { store.remove_gateway(1); });
    ASSERT_TRUE(becomes([&] { return store.gateway(1) == "fe80::1"; }));
    store.set_gateway(1, "fe80::1");
    ASSERT_TRUE(settle());
    EXPECT_FALSE(store.gateway(1));
    EXPECT_TRUE(device.static_gateways("eth0").empty());
    store.set_gateway(1, "fe80::1"); // the remedy: once more
    ASSERT_TRUE(settle());
    EXPECT_EQ(device.static_gateways("eth0"), std::vector<std::string>{"fe80::1"});
}

// The synchronisation of another edit takes the gateway that was written back for the user's
// setting.
TEST_F(LateReportTest, AGatewayComesBackWithAnotherEditBeforeItsRemovalIsReported) {
    store.set_gateway(1, "fe80::1");
    start_slow();
    edit_during_a_backlog([&] { store.remove_gateway(1); });
    ASSERT_TRUE(becomes([&] { return store.gateway(1) == "fe80::1"; }));
    store.set_address(1, "s", address);
    expect_a_synchronisation_amid_the_backlog();
    ASSERT_TRUE(settle());
    EXPECT_EQ(store.gateway(1), "fe80::1");
    EXPECT_EQ(device.static_gateways("eth0"), std::vector<std::string>{"fe80::1"});
    store.remove_gateway(1); // the remedy: once more
    ASSERT_TRUE(settle());
    EXPECT_FALSE(store.gateway(1));
    EXPECT_TRUE(device.static_gateways("eth0").empty());
}

TEST_F(LateReportTest, BesideAnotherGatewayOfEqualMetricItIsLostInTheStore) {
    add_eth(1);
    store.make_interface(2);
    store.set_gateway(2, "fe80::9");
    store.set_gateway(1, "fe80::1");
    start_slow();
    edit_during_a_backlog([&] { store.set_gateway(1, "fe80::2"); });
    store.set_gateway(1, "fe80::1");
    expect_a_synchronisation_amid_the_backlog();
    ASSERT_TRUE(settle());
    EXPECT_FALSE(store.gateway(1));
    EXPECT_EQ(device.static_gateways("eth0"), std::vector<std::string>{"fe80::1"});
    store.set_gateway(1, "fe80::1"); // the remedy: once more
    ASSERT_TRUE(settle());
    EXPECT_EQ(store.gateway(1), "fe80::1");
}

// The report of the first new gateway looks like a newer route than the second one.
TEST_F(LateReportTest, AGatewayChangedTwiceBeforeTheFirstIsReportedIsLost) {
    store.set_gateway(1, "fe80::1");
    start_slow();
    edit_during_a_backlog([&] { store.set_gateway(1, "fe80::2"); });
    store.set_gateway(1, "fe80::3");
    expect_a_synchronisation_amid_the_backlog();
    ASSERT_TRUE(settle());
    EXPECT_FALSE(store.gateway(1));
    EXPECT_TRUE(device.static_gateways("eth0").empty());
    store.set_gateway(1, "fe80::3"); // the remedy: once more
    ASSERT_TRUE(settle());
    EXPECT_EQ(device.static_gateways("eth0"), std::vector<std::string>{"fe80::3"});
}

TEST_F(LateReportTest, AnAnnouncementQueuedBeforeAChangeOfLengthLeavesTheAddressStatic) {
    store.set_address(1, "s", address);
    start();
    ASSERT_TRUE(settle());
    meanwhile([&] {
        kt::address_options_t options;
        options.replace = true;
        device.add_address("eth0", address, options);
        store.write(kt::paths::address_value(1, "s"), "2001:db8::5/48");
    });
    ASSERT_TRUE(settle() && settle());

    EXPECT_TRUE(device.has_address("eth0", "2001:db8::5/48"));
    EXPECT_EQ(type_of("2001:db8::5/48"), "Static");
}

TEST_F(KnownGatewayTest, AGatewayOfAllZerosIsRefusedAndCanBeRemoved) {
    start();
    store.set_gateway(1, "::");
    ASSERT_TRUE(settle());
    EXPECT_TRUE(logged_part("Kernel refused route via '::'"));
    EXPECT_EQ(store.gateway(1), "::");
    store.remove_gateway(1);
    ASSERT_TRUE(settle());
    EXPECT_FALSE(store.gateway(1));
}

TEST_F(KnownGatewayTest, AnUnreadableTextInPlaceOfAGatewayRemovesBoth) {
    store.set_gateway(1, "fe80::1");
    start();
    ASSERT_TRUE(becomes([&] { return device.static_gateways("eth0").size() == 1; }));
    store.set_gateway(1, "router");
    EXPECT_TRUE(becomes([&] { return !store.gateway(1); }));
    EXPECT_TRUE(device.static_gateways("eth0").empty());
}

TEST_F(KnownGatewayTest, OnALinkWithoutANodeTheNewestStaticOneCountsToo) {
    add_eth(1);
    start();
    device.add_route({"::/0", "fe80::1", "eth1"});
    kt::kernel_route_t second{"::/0", "fe80::2", "eth1"};
    second.metric = 2000;
    device.add_route(second);
    EXPECT_TRUE(gateway_becomes("fe80::2", "eth1"));
}

// Interface nodes.

TEST_F(KnownGatewayTest, OneRemovedWithoutAMirroredLeafComesBackWithTheNextAddress) {
    add_eth(1);
    device.set_up("eth1", false);
    store.make_interface(2);
    start();
    store.remove(kt::paths::interfaces + "/2");
    ASSERT_TRUE(settle());
    device.set_up("eth1");
    EXPECT_TRUE(becomes([&] { return !store.addresses(2).empty(); }));
    store.remove(kt::paths::interfaces + "/2"); // now an address changes: the daemon gets an event
    synchronise();
    device.add_address("eth1", address);
    ASSERT_TRUE(settle());
    EXPECT_TRUE(store.addresses(2).empty());
}

TEST_F(KnownGatewayTest, OneRemovedWhileItIsReadTakesItsStaticAddressesOutOfTheKernel) {
    const std::string node = kt::paths::interfaces + "/1";
    const std::string now = sandbox.directory() + "/now";
    service.stop();
    store.disconnect();
    // Between the list of the interfaces and that of its addresses.
    service.start("vanish:on=list:after=1:limit=1:path=" + node + ":while=" + now);
    store.set_address(1, "s", address);
    start();
    ASSERT_TRUE(becomes([&] { return both_have(1, address); }));
    store.remove(node);
    synchronise();
    EXPECT_TRUE(device.has_address("eth0", address)) << "removed at any other time it leaves them";
    store.set_address(1, "t", "2001:db8::6/64");
    EXPECT_TRUE(becomes([&] { return !device.has_address("eth0", address); }))
        << "until there is a node again, which lacks them";
    store.set_address(1, "s", address);
    ASSERT_TRUE(becomes([&] { return both_have(1, address); }));
    std::ofstream{now};
    synchronise();
    EXPECT_FALSE(store.read(kt::paths::address_value(1, "s")));
    EXPECT_FALSE(device.has_address("eth0", address));
}

TEST_F(KnownGatewayTest, AnInterfaceNodeThatIsNoNumberStopsEveryRead) {
    rebuilds_allowed = true;
    start(kt::preloaded({{"KT_PAUSE_MS", "100"}}));
    store.write(kt::paths::interfaces + "/eth/Label", "no number");
    const std::size_t from = log().size();
    store.set_address(1, "s", address);
    std::size_t at = from;
    for (int i = 0; i < 3; ++i) { // again and again
        at = log().wait_for_containing("Caught exception", at);
        ASSERT_NE(at, 0U);
    }
    EXPECT_FALSE(device.has_address("eth0", address));
    store.remove(kt::paths::interfaces + "/eth");
    EXPECT_TRUE(becomes([&] { return both_have(1, address); }));
}

TEST_F(KnownGatewayTest, InterfaceNodesThatDifferInLeadingZerosAreOneInterface) {
    const std::string twin = kt::paths::interfaces + "/01/IPv6/Addresses/s";
    store.write({{twin + "/Address/Value", "2001:db8::6/64"}, {twin + "/Type/Value", "Static"}});
    store.set_address(1, "s", address);
    start();
    for (int i = 0; i < 3; ++i) {
        const std::size_t from = log().size();
        synchronise();
        EXPECT_GT(log().count_containing("Removing TAV addr", from), 0U) << "it never settles";
    }
}

TEST_F(KnownGatewayTest, InterfaceNumbersAreCutToThirtyTwoBits) {
    device.add_veth("eth4294967296", "peer1", sandbox.neighbour()); // node 4294967297
    store.write(kt::paths::interfaces + "/4294967297/Label", "test");
    start();
    device.add_address("eth4294967296", "2001:db8:9::9/64");
    EXPECT_TRUE(becomes([&] { return type_of("2001:db8:9::9/64") == "Automatic"; }))
        << "it is written under interface 1";
}

} // namespace
