// The daemon's requests that the kernel refuses.

#include "harness/world.h"

namespace {

class RefusalTest : public kt::KernelTest {
protected:
    void SetUp() override {
        add_eth(0);
        service.start();
        store.make_interface(1);
        start_daemon_and_wait();
        index = index_of("eth0");
    }

    void switch_ipv6(bool on) {
        kt::write_file("/proc/sys/net/ipv6/conf/eth0/disable_ipv6", on ? "0" : "1");
    }

    std::string index;
};

// If it stayed in the table, its removal would find nothing to delete in the kernel and cause no
// report of a deletion, and it would be written back for ever.
TEST_F(RefusalTest, AGatewayThatTheKernelRefusesIsGoneForGoodOnceItIsRemoved) {
    store.set_gateway(1, "2001:db8:dead::1");
    EXPECT_TRUE(logged("Error: recv: bad msg type: 2"));
    EXPECT_TRUE(logged("Info: Kernel refused route via '2001:db8:dead::1' on interface " + index +
                       ": error 113"));
    ASSERT_TRUE(settle());
    EXPECT_EQ(store.gateway(1), "2001:db8:dead::1") << "what the user stored stays";
    store.remove_gateway(1);
    ASSERT_TRUE(settle());
    EXPECT_FALSE(store.gateway(1));
    // Nor with the next synchronisations.
    for (int i = 0; i < 3; ++i) {
        store.set_address(1, "x", "2001:db8::" + std::to_string(i + 1) + "/64");
        ASSERT_TRUE(settle());
        EXPECT_FALSE(store.gateway(1));
    }
    EXPECT_TRUE(device.static_gateways("eth0").empty());
}

TEST_F(RefusalTest, ARefusedGatewayIsTriedAgainAtTheNextSynchronisation) {
    store.set_gateway(1, "2001:db8:9::1");
    EXPECT_TRUE(logged_part("Kernel refused route via '2001:db8:9::1'"));
    ASSERT_TRUE(settle());
    EXPECT_TRUE(device.static_gateways("eth0").empty());
    // Now the gateway can be reached.
    store.set_address(1, "x", "2001:db8:9::2/64");
    ASSERT_TRUE(becomes([&] { return device.has_address("eth0", "2001:db8:9::2/64"); }));
    ASSERT_TRUE(settle());
    store.set_address(1, "y", "2001:db8:9::3/64");
    EXPECT_TRUE(gateway_becomes("2001:db8:9::1"));
    EXPECT_EQ(store.gateway(1), "2001:db8:9::1");
}

TEST_F(RefusalTest, ARefusedGatewayThatIsReplacedGivesWayToTheGoodOne) {
    store.set_gateway(1, "2001:db8:dead::1");
    store.set_gateway(1, "fe80::1");
    EXPECT_TRUE(gateway_becomes("fe80::1"));
    ASSERT_TRUE(settle());
    EXPECT_EQ(store.gateway(1), "fe80::1");
    store.remove_gateway(1);
    EXPECT_TRUE(
        becomes([&] { return device.static_gateways("eth0").empty() && !store.gateway(1); }));
    ASSERT_TRUE(settle());
    EXPECT_FALSE(store.gateway(1));
}

TEST_F(RefusalTest, AGatewayThatTheKernelHasLostAlreadyCanBeRemoved) {
    store.set_gateway(1, "fe80::1");
    ASSERT_TRUE(becomes([&] { return !device.static_gateways("eth0").empty(); }));
    ASSERT_TRUE(settle());
    // The daemon sees both at once: it deletes a route that is already gone.
    meanwhile([&] {
        device.delete_route({"::/0", "fe80::1", "eth0"});
        store.remove_gateway(1);
    });
    EXPECT_TRUE(
        logged("Info: Kernel has no route via 'fe80::1' on interface " + index + " to remove"));
    ASSERT_TRUE(settle());
    EXPECT_FALSE(store.gateway(1));
    store.set_address(1, "x", "2001:db8::1/64");
    ASSERT_TRUE(settle());
    EXPECT_FALSE(store.gateway(1));
    EXPECT_TRUE(device.static_gateways("eth0").empty());
}

TEST_F(RefusalTest, ARefusedAddressIsTriedAgainAtTheNextSynchronisation) {
    switch_ipv6(false);
    ASSERT_TRUE(settle());
    store.set_address(1, "s", "2001:db8::5/64");
    EXPECT_TRUE(logged("Info: Kernel refused address '2001:db8::5/64' on interface " + index +
                       ": error 13"));
    ASSERT_TRUE(settle());
    EXPECT_TRUE(store.has_address(1, "2001:db8::5/64", "Static"));
    switch_ipv6(true);
    store.set_address(1, "t", "2001:db8::6/64"); // any edit causes a synchronisation
    EXPECT_TRUE(becomes([&] {
        return device.has_address("eth0", "2001:db8::5/64") &&
               device.has_address("eth0", "2001:db8::6/64");
    }));
    EXPECT_EQ(store.node_of(1, "2001:db8::5/64"), "s");
}

TEST_F(RefusalTest, AnAddressThatTheKernelHasAlreadyIsNoRefusal) {
    // The daemon gets the notification of the kernel's address only after it has requested the same
    // address.
    meanwhile([&] {
        store.set_address(1, "s", "2001:db8::5/64");
        device.add_address("eth0", "2001:db8::5/64");
    });
    ASSERT_TRUE(settle());
    EXPECT_EQ(log().count_containing("Kernel refused"), 0U);
    EXPECT_TRUE(both_have(1, "2001:db8::5/64"));
    EXPECT_TRUE(store.has_address(1, "2001:db8::5/64", "Static"));
    store.remove_address(1, "s");
    EXPECT_TRUE(becomes([&] { return neither_has(1, "2001:db8::5/64"); }));
}

} // namespace
