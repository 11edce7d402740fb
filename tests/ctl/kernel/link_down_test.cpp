// When a link goes down, the kernel removes its Static addresses and its gateway. Tests without and
// with the remedies.
#include <fstream>

#include "ctl_test.h"

namespace {

class LinkDown : public CtlTest {
protected:
    // What tandrel(8) suggests. False if the kernel does not permit it.
    static bool keep_addresses() {
        std::ofstream setting("/proc/sys/net/ipv6/conf/eth0/keep_addr_on_down");
        setting << 1 << std::flush;
        return static_cast<bool>(setting);
    }

    void start_with_address_and_gateway() {
        store.set_address(1, "office", "2001:db8::5/64");
        store.set_gateway(1, "fe80::1");
        start_daemon_and_wait();
        ASSERT_TRUE(becomes([&] { return gateway_there(); }));
        ASSERT_TRUE(settle());
    }
    bool gateway_there() {
        return device.static_gateways("eth0") == std::vector<std::string>{"fe80::1"};
    }
    void down_and_up() {
        device.set_up("eth0", false);
        ASSERT_TRUE(settle());
        device.set_up("eth0");
        ASSERT_TRUE(becomes([&] { return !device.link_local("eth0").empty(); }));
        ASSERT_TRUE(settle());
    }
};

TEST_F(LinkDown, WithoutARemedyAddressAndGatewayAreLostFromTheStoreToo) {
    start_with_address_and_gateway();
    down_and_up();
    EXPECT_TRUE(neither_has(1, "2001:db8::5/64"));
    EXPECT_FALSE(store.gateway(1));
    EXPECT_FALSE(gateway_there());
}

TEST_F(LinkDown, WithTheSettingTheAddressStays) {
    if (!keep_addresses()) {
        GTEST_SKIP() << "the kernel lets only the machine's own root change this setting";
    }
    start_with_address_and_gateway();
    down_and_up();
    EXPECT_TRUE(both_have(1, "2001:db8::5/64"));
    EXPECT_FALSE(store.gateway(1));
}

class LinkDownAtBoot : public LinkDown {
protected:
    void SetUp() override {
        LinkDown::SetUp();
        device.set_up("eth0", false);
        store.set_gateway(1, "fe80::1");
        start_daemon_and_wait();
        ASSERT_TRUE(settle());
        ASSERT_FALSE(gateway_there());
        ASSERT_EQ(store.gateway(1), "fe80::1");
    }
};

TEST_F(LinkDownAtBoot, WithoutAKeeperTheStoredGatewayIsNotInstalled) {
    EXPECT_TRUE(
        contains(run({"check"}).output, "the kernel accepts no route over a link that is down"));
    device.set_up("eth0");
    ASSERT_TRUE(becomes([&] { return !device.link_local("eth0").empty(); }));
    ASSERT_TRUE(settle());
    EXPECT_FALSE(gateway_there());
}

TEST_F(LinkDownAtBoot, WithAKeeperTheStoredGatewayIsInstalled) {
    const auto keeper = begin({"keep"});
    ASSERT_NE(keeper->output().wait_for_containing("watching the links"), 0U);
    ASSERT_TRUE(settle());
    ASSERT_FALSE(gateway_there());
    device.set_up("eth0");
    EXPECT_TRUE(becomes([&] { return gateway_there(); }));
    keeper->signal(SIGINT);
    EXPECT_EQ(keeper->wait_exit(), 0);
}

TEST_F(LinkDownAtBoot, AKeeperThatFindsNoStoreTriesUntilThereIsOne) {
    rebuilds_allowed = true;
    ASSERT_EQ(stop_daemon(), 0);
    store.disconnect();
    service.stop();
    const auto keeper = begin({"keep"});
    ASSERT_NE(keeper->output().wait_for_containing("trying again every second"), 0U);
    service.start();
    EXPECT_NE(keeper->output().wait_for_containing("watching the links"), 0U);
    keeper->signal(SIGTERM);
    EXPECT_EQ(keeper->wait_exit(), 0);
}

} // namespace
