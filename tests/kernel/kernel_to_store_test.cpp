// What happens in the kernel reaches the store.

#include <linux/rtnetlink.h>

#include "harness/world.h"

namespace {

class KernelToStoreTest : public kt::KernelTest {
protected:
    void SetUp() override {
        add_eth(0);
        service.start();
        store.make_interface(1);
    }

    void start_with_link_local() {
        ASSERT_TRUE(becomes([&] { return !device.link_local("eth0").empty(); }));
        start_daemon_and_wait();
        link_local = device.link_local("eth0");
        index = index_of("eth0");
    }

    static std::string text_of(const std::string &with_prefix) {
        return with_prefix.substr(0, with_prefix.find('/'));
    }

    std::string link_local;
    std::string index;
};

TEST_F(KernelToStoreTest, AddressesThatExistAtTheStartAppearWithTypeAndNode) {
    device.add_address("eth0", "2001:db8::7/64");
    start_with_link_local();
    // The kernel lists the global address before the link-local one.
    const std::vector<kt::stored_address_t> expected{{"1", "2001:db8::7/64", "Automatic"},
                                                     {"2", link_local, "Link-Local"}};
    EXPECT_EQ(store.addresses(1), expected);
    EXPECT_TRUE(logged("Info: ADDING addr [" + index + "]: 2001:db8::7/64 [scope:link]"));
    EXPECT_TRUE(logged("Info: ADDING addr [" + index + "]: " + link_local + " [scope:link]"));
    EXPECT_TRUE(logged("Info: Writing kernel addr to TAV on interface 1"));
}

TEST_F(KernelToStoreTest, ALinkThatComesUpBringsItsLinkLocalAddress) {
    device.set_up("eth0", false);
    start_daemon_and_wait();
    EXPECT_TRUE(store.addresses(1).empty());
    device.set_up("eth0");
    ASSERT_TRUE(becomes([&] { return !device.link_local("eth0").empty(); }));
    EXPECT_TRUE(
        becomes([&] { return store.has_address(1, device.link_local("eth0"), "Link-Local"); }));
    device.set_up("eth0", false);
    EXPECT_TRUE(becomes([&] { return store.addresses(1).empty(); }));
}

TEST_F(KernelToStoreTest, AnAdvertisedPrefixBringsAnAutomaticAddress) {
    start_with_link_local();
    kt::Router router(sandbox, "peer0");
    router.start({"2001:db8:1::"});
    const std::string address =
        kt::automatic_address("2001:db8:1::", device.hardware_address("eth0"));
    EXPECT_TRUE(becomes([&] { return store.has_address(1, address, "Automatic"); }));
    EXPECT_TRUE(device.has_address("eth0", address));
    EXPECT_EQ(store.node_of(1, link_local), "1");
    EXPECT_EQ(store.node_of(1, address), "2");
    EXPECT_TRUE(logged("Info: ADDING addr [" + index + "]: " + address + " [scope:link]"));
    EXPECT_TRUE(logged("Info: Skipping route with no gateway..."));
}

TEST_F(KernelToStoreTest, AnAddressDeletedInTheKernelLeavesTheStore) {
    start_with_link_local();
    device.add_address("eth0", "2001:db8::7/64");
    ASSERT_TRUE(becomes([&] { return store.has_address(1, "2001:db8::7/64", "Automatic"); }));
    device.delete_address("eth0", "2001:db8::7/64");
    EXPECT_TRUE(becomes([&] { return store.node_of(1, "2001:db8::7/64").empty(); }));
    EXPECT_TRUE(logged("Info: REMOVING addr [" + index + "]: 2001:db8::7/64 [scope:link]"));
    EXPECT_EQ(store.addresses(1).size(), 1U);
}

TEST_F(KernelToStoreTest, TheLowestFreeNodeNameIsTaken) {
    start_with_link_local();
    for (const std::string address : {"2001:db8::a/64", "2001:db8::b/64", "2001:db8::c/64"}) {
        device.add_address("eth0", address);
    }
    ASSERT_TRUE(becomes([&] { return store.addresses(1).size() == 4; }));
    EXPECT_EQ(store.node_of(1, "2001:db8::b/64"), "3");
    device.delete_address("eth0", "2001:db8::a/64");
    device.delete_address("eth0", "2001:db8::b/64");
    ASSERT_TRUE(becomes([&] { return store.addresses(1).size() == 2; }));
    device.add_address("eth0", "2001:db8::d/64");
    EXPECT_TRUE(becomes([&] { return store.node_of(1, "2001:db8::d/64") == "2"; }));
    EXPECT_EQ(store.node_of(1, "2001:db8::c/64"), "4") << "names are never compacted";
}

TEST_F(KernelToStoreTest, ANewAnnouncementRefreshesThePrefixLength) {
    start_with_link_local();
    device.add_address("eth0", "2001:db8::7/64");
    ASSERT_TRUE(becomes([&] { return store.node_of(1, "2001:db8::7/64") == "2"; }));
    ASSERT_TRUE(settle());
    device.delete_address("eth0", "2001:db8::7/64");
    device.add_address("eth0", "2001:db8::7/48");
    EXPECT_TRUE(becomes([&] {
        return store.node_of(1, "2001:db8::7/48") == "2" && store.addresses(1).size() == 2;
    }));
}

TEST_F(KernelToStoreTest, AStaticDefaultRouteBecomesTheStoresGatewayUntilItIsDeleted) {
    start_with_link_local();
    const kt::kernel_route_t route{"::/0", "fe80::1", "eth0"};
    device.add_route(route);
    EXPECT_TRUE(becomes([&] { return store.gateway(1) == "fe80::1"; }));
    EXPECT_TRUE(logged("Info: ADDING route [" + index + "]: ::/0 : gw = fe80::1 (4)"));
    device.delete_route(route);
    EXPECT_TRUE(becomes([&] { return !store.gateway(1); }));
    EXPECT_TRUE(logged("Info: REMOVING route [" + index + "]: ::/0 : gw = fe80::1 (4)"));
    EXPECT_TRUE(store.list(kt::paths::ipv6(1) + "/Default Gateway").empty());
}

// The store wins for the gateway. Only its final value matters: the recorded gateway is written for
// a moment, until the kernel reports that it is gone.
TEST_F(KernelToStoreTest, AStaticDefaultRouteThatTheStoreDoesNotKnowIsRemovedAtTheStart) {
    device.add_route({"::/0", "fe80::1", "eth0"});
    start_with_link_local();
    EXPECT_TRUE(logged("Info: Removing existing static route"));
    EXPECT_TRUE(logged("Info: Writing kernel route to TAV on interface " + index));
    EXPECT_TRUE(
        becomes([&] { return !store.gateway(1) && device.static_gateways("eth0").empty(); }));
}

TEST_F(KernelToStoreTest, AStaticDefaultRouteThatTheStoreKnowsIsKeptAtTheStart) {
    store.set_gateway(1, "fe80::1");
    device.add_route({"::/0", "fe80::1", "eth0"});
    start_with_link_local();
    EXPECT_TRUE(logged("Info: Skipping already-configured gateway..."));
    EXPECT_EQ(store.gateway(1), "fe80::1");
    EXPECT_EQ(device.static_gateways("eth0"), std::vector<std::string>{"fe80::1"});
}

TEST_F(KernelToStoreTest, ASecondStaticDefaultRouteReplacesTheFirst) {
    start_with_link_local();
    device.add_route({"::/0", "fe80::1", "eth0"});
    ASSERT_TRUE(becomes([&] { return store.gateway(1) == "fe80::1"; }));
    kt::kernel_route_t better{"::/0", "fe80::2", "eth0"};
    better.metric = 100;
    device.add_route(better);
    EXPECT_TRUE(logged("Info: Replaced exising static route with a new one - removing old route"));
    EXPECT_TRUE(becomes([&] {
        return device.static_gateways("eth0") == std::vector<std::string>{"fe80::2"} &&
               store.gateway(1) == "fe80::2";
    }));
    ASSERT_TRUE(settle());
    EXPECT_EQ(store.gateway(1), "fe80::2");
}

TEST_F(KernelToStoreTest, OfTwoStaticDefaultRoutesAtTheStartTheStoresOneStays) {
    device.add_route({"::/0", "fe80::1", "eth0"});
    kt::kernel_route_t better{"::/0", "fe80::2", "eth0"};
    better.metric = 100;
    device.add_route(better);
    store.set_gateway(1, "fe80::1");
    start_with_link_local();
    EXPECT_TRUE(logged("Info: Replaced exising static route with a new one - removing old route"));
    EXPECT_TRUE(gateway_becomes("fe80::1"));
    ASSERT_TRUE(settle());
    EXPECT_EQ(store.gateway(1), "fe80::1");
}

TEST_F(KernelToStoreTest, RoutesThatNobodyConfiguredAreNotCopied) {
    start_with_link_local();
    kt::kernel_route_t advertised{"::/0", "fe80::9", "eth0"};
    advertised.protocol = RTPROT_RA;
    device.add_route(advertised);
    EXPECT_TRUE(logged("Info: Skipping non-STATIC gateway..."));
    EXPECT_TRUE(logged("Info: ADDING route [" + index + "]: ::/0 : gw = fe80::9 (9)"));
    device.add_route({"2001:db8:5::/48", "fe80::9", "eth0"});
    EXPECT_TRUE(logged("Info: Skipping non-default gateway route..."));
    device.add_route({"2001:db8:6::/48", "", "eth0"});
    EXPECT_TRUE(logged("Info: ADDING route [" + index + "]: 2001:db8:6::/48 : gw = :: (4)"));
    ASSERT_TRUE(settle());
    EXPECT_FALSE(store.gateway(1));
    EXPECT_TRUE(device.static_gateways("eth0").empty());
}

TEST_F(KernelToStoreTest, AnAdvertisedDefaultRouteStaysBesideTheConfiguredGateway) {
    start_with_link_local();
    kt::Router router(sandbox, "peer0");
    router.start({"2001:db8:1::"}, true);
    ASSERT_TRUE(logged("Info: Skipping non-STATIC gateway..."));
    store.set_gateway(1, "fe80::1");
    EXPECT_TRUE(gateway_becomes("fe80::1"));
    ASSERT_TRUE(settle());
    EXPECT_EQ(store.gateway(1), "fe80::1");
}

TEST_F(KernelToStoreTest, AMultipathRouteHasNoLinkOfItsOwnAndIsSkipped) {
    start_with_link_local();
    kt::kernel_route_t route{"2001:db8:5::/48", "fe80::8", "eth0"};
    route.more_gateways = {"fe80::9"};
    device.add_route(route);
    EXPECT_TRUE(logged("Info: Skipping route msg with no idx"));
}

TEST_F(KernelToStoreTest, EventsOnLinksThatAreNotTrackedAreIgnored) {
    start_with_link_local();
    add_eth(1, "other");
    const std::string other = index_of("other1");
    device.add_address("other1", "2001:db8:7::1/64");
    EXPECT_TRUE(logged("Info: void CSync::nl_addr_update(int, const std::vector<CKernAddress>&): "
                       "Ignoring event on unknown interface '" +
                       other + "'"));
    EXPECT_TRUE(logged("Info: void CSync::nl_route_update(int, const std::vector<CKernRoute>&): "
                       "Ignoring event on unknown interface '" +
                       other + "'"));
    EXPECT_EQ(store.addresses(1).size(), 1U);
}

} // namespace
