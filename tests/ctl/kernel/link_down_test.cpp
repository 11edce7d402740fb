// When a link goes down, the kernel removes its Static addresses and its gateway, and the gateway
// is not restored. Tests with and without each of the two remedies.
#include <algorithm>
#include <fstream>

#include "ctl_test.h"

namespace {

class LinkDown : public CtlTest {
protected:
    // False if the kernel does not permit changing the settings.
    static bool apply_sysctl_file() {
        std::ifstream file(SYSCTL_FILE);
        std::string line;
        int settings = 0;
        while (std::getline(file, line)) {
            const std::size_t sign = line.find(" = ");
            if (line.empty() || line.front() == '#' || sign == std::string::npos) {
                continue;
            }
            std::string path = line.substr(line.front() == '-' ? 1 : 0, sign);
            std::replace(path.begin(), path.end(), '.', '/');
            path = "/proc/sys/" + path.substr(0, path.find(' '));
            std::ofstream setting(path);
            setting << line.substr(sign + 3) << std::flush;
            if (!setting) {
                return false;
            }
            ++settings;
        }
        EXPECT_EQ(settings, 3);
        return true;
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

TEST_F(LinkDown, WithoutTheRemediesAddressAndGatewayAreLostFromTheStoreToo) {
    start_with_address_and_gateway();
    down_and_up();
    EXPECT_TRUE(neither_has(1, "2001:db8::5/64"));
    EXPECT_FALSE(store.gateway(1));
    EXPECT_FALSE(gateway_there());
}

TEST_F(LinkDown, WithTheSettingsTheAddressStaysAndTheGatewayStaysInTheStore) {
    if (!apply_sysctl_file()) {
        GTEST_SKIP() << "the kernel lets only the machine's own root change these settings";
    }
    start_with_address_and_gateway();
    down_and_up();
    EXPECT_TRUE(both_have(1, "2001:db8::5/64"));
    EXPECT_EQ(store.gateway(1), "fe80::1");
    EXPECT_FALSE(gateway_there()) << "this takes the other remedy";
    EXPECT_TRUE(contains(run({"check"}).output, "the gateway fe80::1 is in the store only"));
    done({"nudge"});
    EXPECT_TRUE(becomes([&] { return gateway_there(); }));
    EXPECT_TRUE(becomes([&] { return in_step(); })) << run({"check"}).output;
}

TEST_F(LinkDown, WithBothRemediesEverythingComesBack) {
    if (!apply_sysctl_file()) {
        GTEST_SKIP() << "the kernel lets only the machine's own root change these settings";
    }
    start_with_address_and_gateway();
    const auto follower = begin({"nudge", "--follow"});
    ASSERT_NE(follower->output().wait_for("started: asked tandrel to synchronise"), 0U);
    for (int i = 0; i < 3; ++i) {
        const std::size_t seen = follower->output().size();
        device.set_up("eth0", false);
        ASSERT_TRUE(settle());
        EXPECT_FALSE(gateway_there());
        device.set_up("eth0");
        EXPECT_NE(follower->output().wait_for("eth0 came up: asked tandrel to synchronise", seen),
                  0U);
        EXPECT_TRUE(becomes([&] { return gateway_there(); }));
        EXPECT_TRUE(both_have(1, "2001:db8::5/64"));
    }
    ASSERT_TRUE(settle());
    EXPECT_EQ(store.gateway(1), "fe80::1");
    follower->signal(SIGTERM);
    EXPECT_EQ(follower->wait_exit(), 0);
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

TEST_F(LinkDownAtBoot, WithoutAFollowerTheStoredGatewayIsNotInstalled) {
    EXPECT_TRUE(
        contains(run({"check"}).output, "the kernel accepts no route over a link that is down"));
    device.set_up("eth0");
    ASSERT_TRUE(becomes([&] { return !device.link_local("eth0").empty(); }));
    ASSERT_TRUE(settle());
    EXPECT_FALSE(gateway_there());
}

TEST_F(LinkDownAtBoot, WithAFollowerTheStoredGatewayIsInstalled) {
    const auto follower = begin({"nudge", "--follow"});
    ASSERT_NE(follower->output().wait_for("started: asked tandrel to synchronise"), 0U);
    ASSERT_TRUE(settle()); // the first nudge must not do the work of the second
    ASSERT_FALSE(gateway_there());
    device.set_up("eth0");
    EXPECT_TRUE(becomes([&] { return gateway_there(); }));
    follower->signal(SIGINT);
    EXPECT_EQ(follower->wait_exit(), 0);
}

TEST_F(LinkDownAtBoot, AFollowerThatFindsNoStoreTriesUntilThereIsOne) {
    rebuilds_allowed = true;
    ASSERT_EQ(stop_daemon(), 0);
    store.disconnect();
    service.stop();
    const auto follower = begin({"nudge", "--follow"});
    ASSERT_NE(follower->errors().wait_for_containing("trying again every second"), 0U);
    service.start();
    store.set_gateway(1, "fe80::1"); // the store was in memory and is now empty
    EXPECT_NE(follower->output().wait_for("started: asked tandrel to synchronise"), 0U);
    follower->signal(SIGTERM);
    EXPECT_EQ(follower->wait_exit(), 0);
}

} // namespace
