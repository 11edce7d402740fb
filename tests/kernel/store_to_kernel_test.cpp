// What a user sets in the store reaches the kernel.

#include <linux/if_addr.h>

#include "harness/world.h"

namespace {

class StoreToKernelTest : public kt::KernelTest {
protected:
    void SetUp() override {
        add_eth(0);
        service.start();
        store.make_interface(1);
    }

    void start() {
        start_daemon_and_wait();
        index = index_of("eth0");
    }

    bool gateway_is(const std::string &gateway) {
        return device.static_gateways("eth0") == std::vector<std::string>{gateway};
    }

    std::string index;
};

TEST_F(StoreToKernelTest, AStaticAddressIsAddedToTheKernelAndStaysAsItIsInTheStore) {
    start();
    store.set_address(1, "office", "2001:db8::5/64");
    EXPECT_TRUE(becomes([&] { return device.has_address("eth0", "2001:db8::5/64"); }));
    EXPECT_TRUE(logged("Info: Adding TAV addr '2001:db8::5/64' to kernel on interface " + index));
    ASSERT_TRUE(settle());
    EXPECT_TRUE(logged("Info: ADDING addr [" + index + "]: 2001:db8::5/64 [scope:link]"));
    EXPECT_EQ(store.node_of(1, "2001:db8::5/64"), "office");
    EXPECT_TRUE(store.has_address(1, "2001:db8::5/64", "Static"));
    for (const auto &address : device.addresses("eth0")) {
        if (address.text == "2001:db8::5/64") {
            EXPECT_EQ(address.flags & IFA_F_PERMANENT, static_cast<unsigned>(IFA_F_PERMANENT));
        }
    }
}

TEST_F(StoreToKernelTest, ANewPrefixLengthIsAppliedByDeletingAndAdding) {
    store.set_address(1, "1", "2001:db8::5/64");
    start();
    store.write(kt::paths::address_value(1, "1"), "2001:db8::5/48");
    EXPECT_TRUE(becomes([&] {
        return device.has_address("eth0", "2001:db8::5/48") &&
               !device.has_address("eth0", "2001:db8::5/64");
    }));
    EXPECT_TRUE(logged("Info: Changing prefix length of address '2001:db8::5/64' => 48"));
    ASSERT_TRUE(settle());
    EXPECT_TRUE(store.has_address(1, "2001:db8::5/48", "Static"));
    EXPECT_EQ(store.node_of(1, "2001:db8::5/48"), "1");
}

TEST_F(StoreToKernelTest, AStaticAddressRemovedFromTheStoreLeavesTheKernel) {
    store.set_address(1, "1", "2001:db8::5/64");
    start();
    store.remove_address(1, "1");
    EXPECT_TRUE(becomes([&] { return !device.has_address("eth0", "2001:db8::5/64"); }));
    EXPECT_TRUE(logged("Info: Comparing address '2001:db8::5/64' (3) (NOT IN TAV)"));
    EXPECT_TRUE(
        logged("Info: Removing TAV addr '2001:db8::5/64' from kernel on interface " + index));
    ASSERT_TRUE(settle());
    EXPECT_EQ(store.node_of(1, "2001:db8::5/64"), "");
}

TEST_F(StoreToKernelTest, AStaticAddressDeletedInTheKernelLeavesTheStore) {
    store.set_address(1, "1", "2001:db8::5/64");
    start();
    device.delete_address("eth0", "2001:db8::5/64");
    EXPECT_TRUE(becomes([&] { return store.node_of(1, "2001:db8::5/64").empty(); }));
    ASSERT_TRUE(settle());
    EXPECT_FALSE(device.has_address("eth0", "2001:db8::5/64"));
}

TEST_F(StoreToKernelTest, AGatewayIsSetChangedAndRemoved) {
    start();
    store.set_gateway(1, "fe80::1");
    EXPECT_TRUE(becomes([&] { return gateway_is("fe80::1"); }));
    EXPECT_TRUE(logged("Info: Adding TAV route 'fe80::1' to kernel on interface " + index));
    EXPECT_TRUE(logged(
        "Info: Read TAV gateway address 'fe80::1' on '/Software/System Settings/Network/Interface/"
        "1/IPv6'"));
    ASSERT_TRUE(settle());

    store.set_gateway(1, "fe80::2");
    EXPECT_TRUE(becomes([&] { return gateway_is("fe80::2"); }));
    EXPECT_TRUE(logged("Info: New TAV route overriding existing one"));
    ASSERT_TRUE(settle());
    EXPECT_EQ(store.gateway(1), "fe80::2");

    store.remove_gateway(1);
    // A synchronisation that finds no gateway writes the recorded one back for a moment, until the
    // kernel reports that its route is gone.
    EXPECT_TRUE(logged("Info: Removing existing static route"));
    EXPECT_TRUE(
        becomes([&] { return device.static_gateways("eth0").empty() && !store.gateway(1); }));
    ASSERT_TRUE(settle());
    EXPECT_FALSE(store.gateway(1));
    EXPECT_TRUE(device.static_gateways("eth0").empty());
}

TEST_F(StoreToKernelTest, AGatewayDeletedInTheKernelLeavesTheStore) {
    store.set_gateway(1, "fe80::1");
    start();
    ASSERT_TRUE(gateway_is("fe80::1"));
    device.delete_route({"::/0", "fe80::1", "eth0"});
    EXPECT_TRUE(becomes([&] { return !store.gateway(1); }));
    ASSERT_TRUE(settle());
    EXPECT_TRUE(device.static_gateways("eth0").empty());
}

TEST_F(StoreToKernelTest, AnUnchangedGatewayIsSentToTheKernelAgain) {
    store.set_gateway(1, "fe80::1");
    start();
    const std::size_t from = log().size();
    store.set_address(1, "1", "2001:db8::5/64");
    EXPECT_TRUE(logged("Info: Skipping already-configured gateway...", from));
    EXPECT_TRUE(logged("Info: Adding TAV route 'fe80::1' to kernel on interface " + index, from));
    EXPECT_TRUE(logged("Error: recv: bad msg type: 2", from)) << "the kernel has it already";
    ASSERT_TRUE(settle());
    EXPECT_TRUE(gateway_is("fe80::1"));
    EXPECT_EQ(store.gateway(1), "fe80::1");
}

TEST_F(StoreToKernelTest, StoredAddressesOfOtherTypesThatTheKernelLacksAreJunk) {
    store.set_address(1, "1", "2001:db8::6/64", "Automatic");
    store.set_address(1, "2", "fe80::6/64", "Link-Local");
    store.set_address(1, "3", "2001:db8::5/64");
    start();
    EXPECT_EQ(
        log().count("Info: Removing unknown/junk node from TAV on interface " + index + " (eth0)"),
        2U);
    EXPECT_EQ(store.node_of(1, "2001:db8::6/64"), "");
    EXPECT_EQ(store.node_of(1, "fe80::6/64"), "");
    EXPECT_EQ(store.node_of(1, "2001:db8::5/64"), "3");
    EXPECT_FALSE(device.has_address("eth0", "2001:db8::6/64"));
}

TEST_F(StoreToKernelTest, AnAutomaticAddressThatIsDeclaredStaticBecomesStatic) {
    device.add_address("eth0", "2001:db8::7/64");
    start();
    const std::string node = store.node_of(1, "2001:db8::7/64");
    ASSERT_TRUE(store.has_address(1, "2001:db8::7/64", "Automatic"));
    store.write(kt::paths::type_value(1, node), "Static");
    ASSERT_TRUE(settle());
    EXPECT_TRUE(logged("Info: Comparing address '2001:db8::7/64' (3) (IN TAV)"));
    EXPECT_EQ(log().count_containing("Adding TAV addr"), 0U) << "the kernel has it already";
    EXPECT_TRUE(store.has_address(1, "2001:db8::7/64", "Static"));
    EXPECT_TRUE(device.has_address("eth0", "2001:db8::7/64"));
    store.remove_address(1, node);
    EXPECT_TRUE(becomes([&] { return !device.has_address("eth0", "2001:db8::7/64"); }))
        << "only a Static address is removed from the kernel with its node";
}

TEST_F(StoreToKernelTest, AnAutomaticAddressRemovedFromTheStoreComesBack) {
    device.add_address("eth0", "2001:db8::7/64");
    start();
    store.remove_address(1, store.node_of(1, "2001:db8::7/64"));
    EXPECT_TRUE(becomes([&] { return store.has_address(1, "2001:db8::7/64", "Automatic"); }));
    EXPECT_TRUE(device.has_address("eth0", "2001:db8::7/64"));
}

TEST_F(StoreToKernelTest, APrefixLengthThatTheUserGivesAnAutomaticAddressIsIgnored) {
    device.add_address("eth0", "2001:db8::7/64");
    start();
    const std::string node = store.node_of(1, "2001:db8::7/64");
    store.write(kt::paths::address_value(1, node), "2001:db8::7/48");
    ASSERT_TRUE(settle());
    EXPECT_TRUE(device.has_address("eth0", "2001:db8::7/64"));
    EXPECT_FALSE(device.has_address("eth0", "2001:db8::7/48"));
}

TEST_F(StoreToKernelTest, EachInterfaceGetsItsOwn) {
    add_eth(1);
    store.set_address(1, "1", "2001:db8::1/64");
    store.set_address(2, "1", "2001:db8::2/64");
    store.set_address(7, "1", "2001:db8::7/64"); // the kernel has no such link
    store.set_gateway(2, "fe80::1");
    start();
    EXPECT_TRUE(device.has_address("eth0", "2001:db8::1/64"));
    EXPECT_TRUE(device.has_address("eth1", "2001:db8::2/64"));
    EXPECT_FALSE(device.has_address("eth0", "2001:db8::2/64"));
    EXPECT_TRUE(gateway_becomes("fe80::1", "eth1"));
    EXPECT_TRUE(device.static_gateways("eth0").empty());
    EXPECT_EQ(store.node_of(7, "2001:db8::7/64"), "1") << "ignored";
    EXPECT_FALSE(store.gateway(1));
    EXPECT_TRUE(logged("Info: Synchronizing kernel interface (" + index +
                       ") with TAV interface "
                       "(1): eth0"));
    EXPECT_TRUE(logged("Info: Synchronizing TAV interface (2) with kernel interface (" +
                       index_of("eth1") + "): eth1"));
}

TEST_F(StoreToKernelTest, SeveralEditsInOneTransactionAreOneSynchronisation) {
    start();
    const std::size_t from = log().size();
    kt::Store::pairs_t leaves;
    for (int i = 1; i <= 20; ++i) {
        const std::string node = std::to_string(i);
        leaves.emplace_back(kt::paths::address_value(1, node), "2001:db8::" + node + "/64");
        leaves.emplace_back(kt::paths::type_value(1, node), "Static");
    }
    store.write(leaves);
    ASSERT_TRUE(settle());
    EXPECT_TRUE(device.has_address("eth0", "2001:db8::20/64"));
    EXPECT_EQ(log().count_containing("Info: Processing TAV event: cmd = 2, path = "
                                     "'/Software/System Settings/Network/Interface/1/IPv6/",
                                     from),
              40U);
    EXPECT_EQ(log().count("Info: Synchronizing kernel & TAV settings...", from), 1U);
}

class LinkTest : public StoreToKernelTest {};

TEST_F(LinkTest, AnInterfaceThatAppearsLaterGetsItsConfiguration) {
    store.set_address(3, "1", "2001:db8::3/64");
    store.set_gateway(3, "fe80::1");
    start();
    EXPECT_EQ(log().count_containing("(3): eth2"), 0U);
    add_eth(2);
    EXPECT_TRUE(logged("Info: Adding new link: 'eth2' (" + index_of("eth2") + ")"));
    EXPECT_TRUE(becomes([&] { return both_have(3, "2001:db8::3/64"); }));
    EXPECT_EQ(store.node_of(3, "2001:db8::3/64"), "1");
}

TEST_F(LinkTest, ADeletedLinkIsForgottenAndMayComeBack) {
    store.set_address(2, "1", "2001:db8::2/64");
    add_eth(1);
    start();
    ASSERT_TRUE(becomes([&] { return both_have(2, "2001:db8::2/64"); }));
    const std::string number = index_of("eth1");
    const std::string hardware = device.hardware_address("eth1");
    device.delete_link("eth1");
    EXPECT_TRUE(logged("Info: Erasing existing link: 'eth1' (" + number + ")"));
    EXPECT_TRUE(logged("Info: REMOVING link [" + number + "]: eth1 : " + hardware));
    ASSERT_TRUE(settle());
    // The kernel reports the link's addresses as deleted before the link itself.
    EXPECT_EQ(store.node_of(2, "2001:db8::2/64"), "");
    store.set_address(2, "1", "2001:db8::22/64");
    ASSERT_TRUE(settle());
    add_eth(1);
    EXPECT_TRUE(becomes([&] { return both_have(2, "2001:db8::22/64"); }));
}

TEST_F(LinkTest, ALinkMovedAwayIsForgotten) {
    add_eth(1);
    start();
    const std::string number = index_of("eth1");
    device.move_link("eth1", sandbox.neighbour());
    EXPECT_TRUE(logged("Info: Erasing existing link: 'eth1' (" + number + ")"));
}

TEST_F(LinkTest, AKnownLinkKeepsTheNameOfItsFirstSight) {
    store.set_address(2, "1", "2001:db8::2/64");
    start();
    const std::string hardware = device.hardware_address("eth0");
    const std::size_t from = log().size();
    device.set_up("eth0", false);
    device.rename("eth0", "eth1");
    device.set_up("eth1");
    EXPECT_TRUE(logged("Info: ADDING link [" + index + "]: eth1 : " + hardware, from));
    ASSERT_TRUE(settle());
    EXPECT_EQ(log().count_containing("Adding new link", from), 0U);
    EXPECT_FALSE(device.has_address("eth1", "2001:db8::2/64"));
    store.set_address(1, "1", "2001:db8::1/64");
    EXPECT_TRUE(becomes([&] { return device.has_address("eth1", "2001:db8::1/64"); }))
        << "for the daemon it is still eth0";
}

TEST_F(LinkTest, OfTwoLinksWithTheSameNameOnlyOneIsWrittenToTheStore) {
    store.set_address(1, "1", "2001:db8::1/64");
    start();
    device.set_up("eth0", false);
    device.rename("eth0", "eth9");
    device.set_up("eth9");
    // The name is free in the kernel, but not in the daemon's table.
    device.add_veth("eth0", "peer9", sandbox.neighbour());
    neighbour.set_up("peer9");
    device.set_up("eth0");
    device.add_address("eth0", "2001:db8:2::1/64");
    device.add_address("eth9", "2001:db8:9::1/64");
    EXPECT_TRUE(becomes([&] { return store.has_address(1, "2001:db8:9::1/64", "Automatic"); }));
    ASSERT_TRUE(settle());
    EXPECT_EQ(store.node_of(1, "2001:db8:2::1/64"), "");
    EXPECT_EQ(log().count_containing("Caught exception"), 0U);
    device.delete_link("eth9");
    store.set_address(1, "2", "2001:db8::2/64"); // any edit
    EXPECT_TRUE(becomes([&] {
        return both_have(1, "2001:db8::2/64") &&
               store.has_address(1, "2001:db8:2::1/64", "Automatic");
    })) << "with the old link gone the name is the new one's";
}

TEST_F(LinkTest, ALinkRenamedIntoThePrefixIsTracked) {
    store.set_address(2, "1", "2001:db8::2/64");
    add_eth(9, "other");
    start();
    device.set_up("other9", false);
    device.rename("other9", "eth1");
    device.set_up("eth1");
    EXPECT_TRUE(logged("Info: Adding new link: 'eth1' (" + index_of("eth1") + ")"));
    store.set_address(2, "2", "2001:db8::22/64");
    EXPECT_TRUE(becomes([&] { return device.has_address("eth1", "2001:db8::22/64"); }));
}

TEST_F(LinkTest, AChangeOfALinksFlagsOrSizeIsOnlyLogged) {
    start();
    const std::size_t from = log().size();
    device.set_mtu("eth0", 1400);
    EXPECT_TRUE(logged(
        "Info: ADDING link [" + index + "]: eth0 : " + device.hardware_address("eth0"), from));
    ASSERT_TRUE(settle());
    EXPECT_EQ(log().count("Info: Synchronizing kernel & TAV settings...", from), 0U);
}

} // namespace
