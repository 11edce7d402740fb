// Effects of the rules on links and addresses that a user may not expect.

#include "known_behaviours.h"

namespace {

using model::KnownBehaviourTest;

// Links.

constexpr const char *not_settable =
    "the kernel lets only the machine's own root change these settings";

class LinkDownTest : public KnownBehaviourTest {
protected:
    void take_away(bool moved) {
        if (moved) {
            device.rename("eth0", "eth9"); // peers and their names stay apart
            device.move_link("eth9", sandbox.neighbour());
            neighbour.delete_link("eth9");
        } else {
            device.delete_link("eth0");
        }
        ASSERT_TRUE(settle());
    }
};

TEST_F(LinkDownTest, UnpluggingOrMovingALinkRemovesItsAddressesInSpiteOfThatSetting) {
    for (const bool moved : {false, true}) {
        switch_on("conf/all/keep_addr_on_down");
        switch_on("conf/eth0/keep_addr_on_down");
        store.set_address(1, "s", address);
        store.set_gateway(1, "fe80::1");
        start();
        ASSERT_TRUE(becomes([&] { return both_have(1, address) && store.gateway(1); }));
        take_away(moved);
        EXPECT_TRUE(becomes([&] { return store.addresses(1).empty() && !store.gateway(1); }));
        EXPECT_EQ(stop_daemon(), 0);
        add_eth(0);
        ASSERT_TRUE(becomes([&] { return !device.link_local("eth0").empty(); }));
    }
}

TEST_F(LinkDownTest, TheGatewayStaysStoredIfTheKernelDoesNotReportItsRemovalEvenWhenTheLinkIsGone) {
    if (!kt::Sandbox::is_real_root()) {
        GTEST_SKIP() << not_settable;
    }
    for (const bool moved : {false, true}) {
        switch_on("route/skip_notify_on_dev_down");
        store.set_gateway(1, "fe80::1");
        start();
        ASSERT_EQ(device.static_gateways("eth0"), std::vector<std::string>{"fe80::1"});
        take_away(moved);
        EXPECT_EQ(store.gateway(1), "fe80::1");
        EXPECT_EQ(stop_daemon(), 0);
        add_eth(0);
        ASSERT_TRUE(becomes([&] { return !device.link_local("eth0").empty(); }));
    }
}

TEST_F(KnownBehaviourTest, AGatewayStoredWhileTheLinkIsDownWaitsForTheNextSynchronisation) {
    start();
    device.set_up("eth0", false);
    store.set_gateway(1, "fe80::1");
    ASSERT_TRUE(settle());
    EXPECT_TRUE(logged_part("Kernel refused route via 'fe80::1'"));
    device.set_up("eth0");
    ASSERT_TRUE(becomes([&] { return !device.link_local("eth0").empty(); }));
    ASSERT_TRUE(settle());
    EXPECT_TRUE(device.static_gateways("eth0").empty());
    EXPECT_EQ(store.gateway(1), "fe80::1");
    synchronise();
    EXPECT_EQ(device.static_gateways("eth0"), std::vector<std::string>{"fe80::1"});
}

TEST_F(KnownBehaviourTest, ALinkThatLeavesABridgeLosesItsAutomaticAddressesInTheStore) {
    store.set_address(1, "s", address);
    start();
    device.add_address("eth0", "2001:db8:7::7/64");
    ASSERT_TRUE(becomes([&] { return type_of("2001:db8:7::7/64") == "Automatic"; }));
    run_ip({"link", "add", "br0", "type", "bridge"});
    run_ip({"link", "set", "eth0", "master", "br0"});
    ASSERT_TRUE(settle());
    const std::size_t from = log().size();
    run_ip({"link", "set", "eth0", "nomaster"});
    EXPECT_TRUE(logged_part("Erasing existing link: 'eth0'", from));
    EXPECT_TRUE(logged_part("Adding new link: 'eth0'", from));
    ASSERT_TRUE(settle());
    EXPECT_TRUE(device.has_address("eth0", "2001:db8:7::7/64"));
    EXPECT_EQ(type_of("2001:db8:7::7/64"), "absent");
    EXPECT_TRUE(both_have(1, address)) << "what is Static stays";
    // A new announcement, or a restart, brings them back.
    EXPECT_EQ(stop_daemon(), 0);
    start();
    EXPECT_EQ(type_of("2001:db8:7::7/64"), "Automatic");
}

TEST_F(KnownBehaviourTest, ALinkThatIsRenamedOutOfThePrefixAndRemovedIsNeverForgotten) {
    store.set_address(1, "s", address);
    start();
    device.set_up("eth0", false);
    device.rename("eth0", "wan0");
    device.delete_link("wan0");
    ASSERT_TRUE(settle());
    store.set_address(1, "s", address);
    ASSERT_TRUE(settle());
    add_eth(0);
    ASSERT_TRUE(settle());
    synchronise();
    EXPECT_FALSE(device.has_address("eth0", address)) << "the old link still has the name";
    EXPECT_EQ(stop_daemon(), 0);
    start();
    EXPECT_TRUE(becomes([&] { return both_have(1, address); }));
}

// Addresses.

TEST_F(KnownBehaviourTest, AStaticAddressRemovedWhileTheDaemonDoesNotRunComesBackAsAutomatic) {
    store.set_address(1, "s", address);
    start();
    ASSERT_TRUE(becomes([&] { return both_have(1, address); }));
    EXPECT_EQ(stop_daemon(), 0);
    store.remove_address(1, "s");
    start();
    EXPECT_TRUE(device.has_address("eth0", address));
    EXPECT_EQ(type_of(address), "Automatic");
    // The remedy: declared Static and removed again, or deleted in the kernel.
    store.write(kt::paths::type_value(1, store.node_of(1, address)), "Static");
    ASSERT_TRUE(settle());
    store.remove_address(1, store.node_of(1, address));
    EXPECT_TRUE(becomes([&] { return neither_has(1, address); }));
}

TEST_F(KnownBehaviourTest, AnAutomaticAddressDeclaredStaticLeavesTheStoreWhenItExpires) {
    start();
    kt::address_options_t options;
    options.valid_seconds = 3600;
    device.add_address("eth0", address, options);
    ASSERT_TRUE(becomes([&] { return type_of(address) == "Automatic"; }));
    store.write(kt::paths::type_value(1, store.node_of(1, address)), "Static");
    ASSERT_TRUE(settle());
    options.valid_seconds = 1;
    options.replace = true;
    device.add_address("eth0", address, options);
    EXPECT_TRUE(becomes([&] { return neither_has(1, address); }));
}

TEST_F(KnownBehaviourTest, AStaticAddressDeclaredOtherwiseLeavesBothSides) {
    store.set_address(1, "s", address);
    start();
    store.write(kt::paths::type_value(1, "s"), "Automatic");
    EXPECT_TRUE(becomes([&] { return neither_has(1, address); }));
}

TEST_F(KnownBehaviourTest,
       AnAutomaticAddressDeclaredLinkLocalIsMissingUntilTheNextSynchronisation) {
    start();
    device.add_address("eth0", address);
    ASSERT_TRUE(becomes([&] { return type_of(address) == "Automatic"; }));
    ASSERT_TRUE(settle() && settle()); // the kernel announces a new address twice
    store.write(kt::paths::type_value(1, store.node_of(1, address)), "Link-Local");
    ASSERT_TRUE(settle());
    EXPECT_EQ(type_of(address), "absent");
    synchronise();
    EXPECT_EQ(type_of(address), "Automatic");
}

TEST_F(KnownBehaviourTest, TheLinksOwnLinkLocalAddressDeclaredStaticIsStoredTwice) {
    start();
    const std::string own = device.link_local("eth0");
    ASSERT_EQ(type_of(own), "Link-Local");
    store.set_address(1, "s", own);
    ASSERT_TRUE(settle());
    synchronise();
    synchronise();
    EXPECT_EQ(times_stored(own), 2U);
    // Only a removal in the kernel, or by way of the Static node, takes it away.
    store.remove_address(1, "s");
    ASSERT_TRUE(settle());
    EXPECT_TRUE(becomes([&] { return device.link_local("eth0").empty(); }));
}

TEST_F(KnownBehaviourTest, AnAddressWithAPeerIsKnownByItsPeer) {
    start();
    kt::address_options_t options;
    options.peer = "2001:db8:8::2/64";
    device.add_address("eth0", "2001:db8:8::1/64", options);
    EXPECT_TRUE(becomes([&] { return type_of("2001:db8:8::2/64") == "Automatic"; }));
    EXPECT_EQ(type_of("2001:db8:8::1/64"), "absent");
}

TEST_F(KnownBehaviourTest, AStaticAddressUnderTwoNodesComesBackWhenItIsDeletedInTheKernel) {
    store.set_address(1, "a", address);
    store.set_address(1, "b", address);
    start();
    EXPECT_EQ(times_stored(address), 2U);
    device.delete_address("eth0", address);
    ASSERT_TRUE(settle());
    EXPECT_EQ(times_stored(address), 1U);
    EXPECT_FALSE(device.has_address("eth0", address));
    synchronise();
    EXPECT_TRUE(both_have(1, address));
}

TEST_F(KnownBehaviourTest, OfAStaticAddressUnderTwoNodesTheLaterPrefixLengthWins) {
    store.set_address(1, "a", address);
    store.set_address(1, "b", "2001:db8::5/48");
    start();
    for (int i = 0; i < 3; ++i) {
        synchronise();
    }
    EXPECT_TRUE(store.has_address(1, "2001:db8::5/48", "Static"));
    EXPECT_EQ(type_of(address), "absent");
    EXPECT_TRUE(device.has_address("eth0", "2001:db8::5/48"));
    const std::size_t from = log().size();
    synchronise();
    EXPECT_EQ(log().count_containing("Changing prefix length", from), 0U);
}

TEST_F(KnownBehaviourTest, ANodeWithoutAMirroredLeafIsIgnoredByTheNaming) {
    start();
    ASSERT_EQ(store.addresses(1).size(), 1U); // the link-local one, "1"
    store.write(kt::paths::address(1, "2") + "/Note", "mine");
    ASSERT_TRUE(settle());
    device.add_address("eth0", address);
    EXPECT_TRUE(becomes([&] { return store.node_of(1, address) == "2"; }));
    EXPECT_EQ(store.read(kt::paths::address(1, "2") + "/Note"), "mine");
}

} // namespace
