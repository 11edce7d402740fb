// A router's link: a routing table that another program fills and changes all the time.

#include <algorithm>

#include "harness/many_routes.h"
#include "harness/world.h"

namespace {

class FullTableTest : public kt::KernelTest {
protected:
    static constexpr int count = 10000;
    // Fewer notifications than the daemon's receive buffer holds, even if it reads none of them.
    static constexpr int churn = 400;

    void SetUp() override {
        add_eth(0);
        service.start();
        store.make_interface(1);
        ASSERT_TRUE(becomes([&] { return !device.link_local("eth0").empty(); }));
        table = std::make_unique<kt::ManyRoutes>(device.index("eth0"), "fe80::99");
        table->add(0, count);
        // Without the privilege to force the buffer's size, it holds a few hundred.
        rebuilds_allowed = !kt::Sandbox::is_real_root();
    }

    // The routes of the table that the kernel has.
    long kept() {
        const auto routes = device.routes();
        return std::count_if(routes.begin(), routes.end(), [](const auto &route) {
            return route.destination.find("2a00:") == 0;
        });
    }

    std::unique_ptr<kt::ManyRoutes> table;
};

TEST_F(FullTableTest, IsNeitherStoredNorChangedAndTheDaemonWorksBesideIt) {
    start_daemon_and_wait({"-d", "-D", "3"});
    expect_working();
    EXPECT_EQ(kept(), count);
    EXPECT_EQ(store.gateway(1), std::nullopt);
}

TEST_F(FullTableTest, AStaticDefaultRouteIsFollowedWhileTheTableChanges) {
    start_daemon_and_wait({"-d", "-D", "3"});
    const kt::kernel_route_t route{"::/0", "fe80::1", "eth0"};
    for (int turn = 0; turn < 3; ++turn) {
        table->add(count, churn);
        device.add_route(route);
        table->remove(count, churn);
        EXPECT_TRUE(becomes([&] { return store.gateway(1) == "fe80::1"; }));
        table->add(count, churn);
        device.delete_route(route);
        table->remove(count, churn);
        EXPECT_TRUE(becomes([&] { return !store.gateway(1).has_value(); }));
    }
    ASSERT_TRUE(settle());
    EXPECT_EQ(kept(), count);
}

TEST_F(FullTableTest, AStoredGatewayReachesTheKernelWhileTheTableChanges) {
    start_daemon_and_wait({"-d", "-D", "3"});
    table->add(count, churn);
    store.set_gateway(1, "fe80::2");
    table->remove(count, churn);
    EXPECT_TRUE(becomes(
        [&] { return device.static_gateways("eth0") == std::vector<std::string>{"fe80::2"}; }));
    ASSERT_TRUE(settle());
    EXPECT_EQ(store.gateway(1), "fe80::2");
    EXPECT_EQ(kept(), count);
}

// The kernel marks a dump during which its tables changed. The daemon requests it again, a few
// times, and then works with what it has.
TEST_F(FullTableTest, DiscoveryEndsWhileTheTableChanges) {
    start_daemon({"-d", "-D", "3"});
    for (int turn = 0; turn < 20; ++turn) {
        table->add(count, churn / 10);
        table->remove(count, churn / 10);
    }
    EXPECT_TRUE(logged(kt::normal_operation));
    ASSERT_TRUE(settle());
    EXPECT_TRUE(store.has_address(1, device.link_local("eth0"), "Link-Local"));
    EXPECT_EQ(kept(), count);
}

} // namespace
