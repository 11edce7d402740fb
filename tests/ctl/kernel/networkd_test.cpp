// The daemon beside systemd-networkd: what tandrel(8) says about it.
#include <unistd.h>

#include "ctl_test.h"

namespace {

constexpr const char *networkd = "/lib/systemd/systemd-networkd";

class NetworkdTest : public CtlTest {
protected:
    void SetUp() override {
        if (access(networkd, X_OK) != 0) {
            GTEST_SKIP() << networkd << " is not installed";
        }
        if (!kt::Sandbox::is_real_root()) {
            GTEST_SKIP() << "only the machine's root may start systemd-networkd";
        }
        CtlTest::SetUp();
    }

    void configure() {
        store.set_address(1, "office", office);
        store.set_gateway(1, "fe80::1");
        start_daemon_and_wait();
        ASSERT_TRUE(becomes([&] { return is_configured(); }));
    }

    void TearDown() override {
        manager.reset();
        if (daemon) {
            KernelTest::TearDown();
        }
    }

    // systemd-networkd without the rest of systemd, with a /run of its own. It waits for udev to
    // announce a link; the file says that udev has done so.
    void start_networkd(const std::string &settings, const std::string &until) {
        const std::string script =
            "mount -t sysfs none /sys; mount -t tmpfs none /run\n"
            "mkdir -p /run/systemd/network /run/systemd/netif/links /run/systemd/netif/leases "
            "/run/systemd/netif/lldp /run/udev/data\n"
            "chown -R systemd-network /run/systemd/netif\n"
            "touch /run/udev/control\n"
            "for index in /sys/class/net/*/ifindex; do\n"
            "    echo I:1 >/run/udev/data/n$(cat $index)\n"
            "done\n"
            "printf '[Match]\\nName=eth0\\n%s' \"$1\" >/run/systemd/network/10-eth0.network\n"
            "exec " +
            std::string(networkd);
        kt::spawn_options_t options;
        options.environment = {{"SYSTEMD_LOG_LEVEL", "debug"}, {"SYSTEMD_LOG_TARGET", "console"}};
        manager.reset();
        manager = std::make_unique<kt::Process>(sandbox,
                                                std::vector<std::string>{"/usr/bin/unshare",
                                                                         "--mount", "/bin/sh", "-c",
                                                                         script, "sh", settings},
                                                options);
        ASSERT_GT(manager->errors().wait_for_containing(until), 0U) << manager->errors().tail(20);
    }

    bool is_configured() {
        return both_have(1, office) && device.static_gateways("eth0") == gateways &&
               store.gateway(1) == "fe80::1";
    }

    const std::string office = "2001:db8::5/64";
    const std::vector<std::string> gateways{"fe80::1"};
    std::unique_ptr<kt::Process> manager;
};

TEST_F(NetworkdTest, BothManageOneLink) {
    configure();
    const std::string settings = "[Network]\nAddress=192.0.2.5/24\nKeepConfiguration=static\n";
    kt::Router router(sandbox, "peer0");
    router.start({"2001:db8:1::"});
    for (int start = 0; start < 3; ++start) {
        start_networkd(settings, "eth0: State changed: configuring -> configured");
        EXPECT_TRUE(is_configured()) << manager->errors().tail(20);
    }
    // An address from a router advertisement, which systemd-networkd handles instead of the kernel.
    const auto advertised = [this] {
        for (const auto &address : store.addresses(1)) {
            if (address.address.rfind("2001:db8:1:", 0) == 0 && address.type == "Automatic") {
                return true;
            }
        }
        return false;
    };
    EXPECT_TRUE(becomes(advertised));
    router.stop();
    // Neither undoes what the other has done: nothing happens any more.
    ASSERT_TRUE(settle());
    const std::size_t from = log().size();
    const std::size_t manager_from = manager->errors().size();
    store.set_address(1, "lab", "2001:db8::6/64");
    EXPECT_TRUE(becomes([&] { return both_have(1, "2001:db8::6/64"); }));
    EXPECT_GT(manager->errors().wait_for_containing("2001:db8::6/64", manager_from), 0U);
    for (int i = 0; i < 10; ++i) {
        ASSERT_TRUE(settle());
    }
    EXPECT_EQ(log().count_containing("REMOVING addr", from), 0U);
    EXPECT_EQ(log().count_containing("REMOVING route", from), 0U);
    EXPECT_EQ(manager->errors().count_containing("Removing", manager_from), 0U);
    EXPECT_TRUE(is_configured());
    manager->signal(SIGTERM);
    EXPECT_EQ(manager->wait_exit(), 0);
    ASSERT_TRUE(settle());
    EXPECT_TRUE(is_configured());
}

TEST_F(NetworkdTest, WithoutKeepConfigurationItRemovesTheSettings) {
    configure();
    start_networkd("[Network]\nAddress=192.0.2.5/24\n",
                   "eth0: State changed: configuring -> configured");
    EXPECT_TRUE(becomes([&] { return neither_has(1, office) && !store.gateway(1); }));
}

TEST_F(NetworkdTest, ALinkThatItDoesNotManageKeepsItsSettings) {
    configure();
    start_networkd("[Link]\nUnmanaged=yes\n", "eth0: State changed: initialized -> unmanaged");
    ASSERT_TRUE(settle());
    EXPECT_TRUE(is_configured());
    EXPECT_EQ(manager->errors().count_containing("eth0: Removing"), 0U);
}

TEST_F(NetworkdTest, ItsSettingsCanBeTakenOver) {
    start_daemon_and_wait();
    const std::string configured = "eth0: State changed: configuring -> configured";
    start_networkd("[Network]\nAddress=2001:db8::5/64\nGateway=fe80::1\n", configured);
    ASSERT_EQ(device.static_gateways("eth0"), gateways);
    // What the manual page says: change the file, restart systemd-networkd, import.
    manager->signal(SIGTERM);
    EXPECT_EQ(manager->wait_exit(), 0);
    start_networkd("[Network]\nAddress=192.0.2.5/24\nKeepConfiguration=static\n", configured);
    const std::size_t from = log().size();
    EXPECT_EQ(run({"import", "--from-kernel", "--write"}).output,
              "eth0  2001:db8::5/64  new\neth0  gateway fe80::1  new\nstored\n");
    ASSERT_TRUE(settle());
    EXPECT_TRUE(is_configured());
    EXPECT_EQ(log().count_containing("REMOVING", from), 0U);
    EXPECT_TRUE(becomes([&] { return in_step(); })) << run({"check"}).output;
}

} // namespace
