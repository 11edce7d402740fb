// What is removed from the store because its link cannot carry it is restored; what somebody
// deletes stays away.
#include <chrono>
#include <iterator>
#include <sstream>
#include <thread>

#include <linux/if_addr.h>

#include <nlohmann/json.hpp>

#include "ctl_test.h"

namespace {

class KeeperTest : public CtlTest {
protected:
    explicit KeeperTest(kt::Service::Keep keep = kt::Service::Keep::memory) : CtlTest(keep) {}

    void SetUp() override {
        CtlTest::SetUp();
        store.set_address(1, "office", address);
        store.set_gateway(1, gateway);
        start_daemon_and_wait();
        ASSERT_TRUE(becomes([&] { return is_complete(); }));
        start_keeper();
    }
    void TearDown() override {
        if (HasFailure()) {
            std::cout << "The keeper's lines:\n" << keeper->output().tail(60);
        }
        if (keeper != nullptr && keeper->running()) {
            stop_keeper();
        }
        CtlTest::TearDown();
    }

    void start_keeper() {
        keeper = begin({"keep"});
        ASSERT_NE(keeper->output().wait_for_containing("watching the links"), 0U);
        // A departure in its first second could have any cause.
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    }
    void stop_keeper() {
        keeper->signal(SIGTERM);
        EXPECT_EQ(keeper->wait_exit(), 0);
    }
    bool said(const std::string &part) { return keeper->output().wait_for_containing(part) != 0; }

    bool is_complete() {
        return device.has_address("eth0", address) && store.node_of(1, address) == "office" &&
               device.static_gateways("eth0") == std::vector<std::string>{gateway} &&
               store.gateway(1) == gateway;
    }
    bool has_lost_all() { return store.node_of(1, address).empty() && !store.gateway(1); }
    void expect_loss() {
        ASSERT_TRUE(becomes([&] { return has_lost_all(); }));
    }
    // The link loses its settings and then its name, which another link gets.
    void give_name_to_another_link() {
        device.set_up("eth0", false);
        expect_loss();
        ASSERT_TRUE(said("eth0: 2001:db8::5/64 was removed from the store ("));
        ASSERT_TRUE(said("eth0: gateway fe80::1 was removed from the store ("));
        device.rename("eth0", "lan0");
        device.add_veth("eth0", "peer9", sandbox.neighbour());
        device.set_up("eth0");
        ASSERT_TRUE(said("eth0: its settings are not restored (several links have had this name)"));
    }
    void expect_return() {
        EXPECT_TRUE(becomes([&] { return is_complete(); })) << run({"check"}).output;
        EXPECT_TRUE(becomes([&] { return run({"keep", "--list"}).output.empty(); }));
        EXPECT_TRUE(becomes([&] { return in_step(); })) << run({"check"}).output;
    }
    static bool is_usable(kt::Kernel &kernel, const std::string &link, const std::string &text) {
        for (const kt::kernel_address_t &one : kernel.addresses(link)) {
            if (one.text == text) {
                return (one.flags & (IFA_F_TENTATIVE | IFA_F_DADFAILED)) == 0;
            }
        }
        return false;
    }
    void set_ipv6_disabled(bool disabled) {
        kt::write_file("/proc/sys/net/ipv6/conf/eth0/disable_ipv6", disabled ? "1" : "0");
    }
    static bool kernel_has_dropped_messages() {
        std::istringstream table(kt::read_file("/proc/net/netlink"));
        std::string line;
        std::getline(table, line);
        while (std::getline(table, line)) {
            std::istringstream fields(line);
            const std::vector<std::string> row{std::istream_iterator<std::string>(fields), {}};
            if (row.size() > 8 && row[1] == "0" && row[8] != "0") {
                return true;
            }
        }
        return false;
    }
    long switches() {
        const std::string text =
            kt::read_file("/proc/" + std::to_string(keeper->pid()) + "/status");
        const std::string name = "\nvoluntary_ctxt_switches:";
        return std::stol(text.substr(text.find(name) + name.size()));
    }
    void go_down_and_up() {
        device.set_up("eth0", false);
        ASSERT_TRUE(settle());
        device.set_up("eth0");
        ASSERT_TRUE(becomes([&] { return !device.link_local("eth0").empty(); }));
    }

    const std::string address = "2001:db8::5/64";
    const std::string gateway = "fe80::1";
    std::unique_ptr<kt::Process> keeper;
};

TEST_F(KeeperTest, WhatALinkLosesWhenItGoesDownComesBackWithIt) {
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(settle()); // a synchronisation at the same time would keep the gateway stored
        device.set_up("eth0", false);
        expect_loss();
        EXPECT_TRUE(becomes([&] {
            const std::string list = run({"keep", "--list"}).output;
            return contains(list, "eth0\t2001:db8::5/64\toffice\t") &&
                   contains(list, "\tlink down\twaits: link down\n") &&
                   contains(list, "eth0\tgateway fe80::1\t-\t");
        })) << run({"keep", "--list"}).output;
        const result_t check = run({"check", "eth0"});
        EXPECT_EQ(check.status, 0) << "a note is no difference";
        EXPECT_TRUE(contains(
            check.output,
            "eth0: note: 2001:db8::5/64 was removed from the store (link down); 'tandrelctl "
            "keep' restores it when the link can carry it; now: link down\n"))
            << check.output;
        EXPECT_FALSE(contains(run({"check", "eth1"}).output, "was removed from the store ("));
        device.set_up("eth0");
        expect_return();
        EXPECT_FALSE(contains(run({"check"}).output, "was removed from the store ("));
    }
    EXPECT_TRUE(said(
        "eth0: 2001:db8::5/64 was removed from the store (link down); it will be restored when "
        "eth0 can carry it"));
    EXPECT_TRUE(said("eth0: 2001:db8::5/64 was restored (link down)"));
    EXPECT_TRUE(said("eth0: gateway fe80::1 was restored (link down)"));
}

TEST_F(KeeperTest, ALinkThatIsDownForAMomentLosesNothing) {
    device.set_up("eth0", false);
    device.set_up("eth0");
    // One may be back before the other has left.
    EXPECT_TRUE(said("eth0: 2001:db8::5/64 was restored"));
    expect_return();
}

TEST_F(KeeperTest, WhatALinkLosesWithASmallMtuComesBack) {
    device.set_mtu("eth0", 1200);
    expect_loss();
    device.set_mtu("eth0", 1500);
    expect_return();
    EXPECT_TRUE(said("(MTU below 1280)"));
}

TEST_F(KeeperTest, WhatALinkLosesWithoutIpv6ComesBack) {
    set_ipv6_disabled(true);
    expect_loss();
    EXPECT_TRUE(becomes([&] {
        return contains(run({"keep", "--list"}).output, "\twaits: IPv6 disabled\n");
    })) << run({"keep", "--list"}).output;
    set_ipv6_disabled(false);
    expect_return();
}

TEST_F(KeeperTest, WhatALinkLosesWithoutIpv6ForAMomentComesBack) {
    set_ipv6_disabled(true);
    set_ipv6_disabled(false);
    expect_return();
}

TEST_F(KeeperTest, WhatAnUnpluggedLinkLosesComesBackWithANewOne) {
    device.delete_link("eth0");
    expect_loss();
    add_eth(0);
    expect_return();
}

TEST_F(KeeperTest, WhatALinkLosesInAnotherNamespaceComesBackWithIt) {
    device.move_link("eth0", sandbox.neighbour());
    expect_loss();
    neighbour.move_link("eth0", sandbox.device());
    device.set_up("eth0");
    expect_return();
}

TEST_F(KeeperTest, WhatARenamedLinkLosesComesBackWithItsName) {
    device.set_up("eth0", false);
    device.rename("eth0", "lan0");
    expect_loss();
    device.set_up("lan0");
    ASSERT_TRUE(becomes([&] { return !device.link_local("lan0").empty(); }));
    EXPECT_TRUE(becomes([&] {
        return contains(run({"keep", "--list"}).output, "\twaits: link renamed\n");
    })) << run({"keep", "--list"}).output;
    device.set_up("lan0", false);
    device.rename("lan0", "eth0");
    device.set_up("eth0");
    expect_return();
}

TEST_F(KeeperTest, NothingIsSetOnALinkWhoseNameAnotherHasHad) {
    give_name_to_another_link();
    EXPECT_TRUE(becomes([&] {
        return contains(run({"keep", "--list"}).output,
                        "\twaits: several links have had this name\n");
    })) << run({"keep", "--list"}).output;
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    EXPECT_TRUE(has_lost_all());
    device.delete_link("lan0");
    EXPECT_TRUE(contains(run({"keep", "--list"}).output, "2001:db8::5/64"));
    rebuilds_allowed = true;
    ASSERT_EQ(stop_daemon(), 0);
    start_daemon_and_wait(); // which knows only the new one
    EXPECT_TRUE(becomes([&] { return is_complete(); })) << run({"keep", "--list"}).output;
    EXPECT_EQ(run({"keep", "--list"}).output, "");
}

TEST_F(KeeperTest, WhatALinkLosesInABridgeComesBack) {
    device.add_bridge("br0");
    device.set_master("eth0", "br0");
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    device.delete_address("eth0", address);
    ASSERT_TRUE(becomes([&] { return store.node_of(1, address).empty(); }));
    EXPECT_TRUE(said("(part of a bridge or bond)"));
    device.set_master("eth0", "");
    // The daemon has lost the link-local address, so the views differ.
    EXPECT_TRUE(becomes([&] { return is_complete(); })) << run({"check"}).output;
}

TEST_F(KeeperTest, WhatIsDeletedInTheKernelOfAnAbleLinkStaysAway) {
    device.delete_address("eth0", address);
    kt::kernel_route_t route;
    route.gateway = gateway;
    route.link = "eth0";
    device.delete_route(route);
    EXPECT_TRUE(said("eth0: 2001:db8::5/64 was deleted in the kernel and will not be restored"));
    EXPECT_TRUE(said("eth0: gateway fe80::1 was deleted in the kernel and will not be restored"));
    EXPECT_TRUE(has_lost_all());
    go_down_and_up();
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    EXPECT_TRUE(has_lost_all());
    EXPECT_EQ(run({"keep", "--list"}).output, "");
}

TEST_F(KeeperTest, WhatIsDeletedInTheStoreStaysAway) {
    store.remove_address(1, "office");
    store.remove_gateway(1);
    ASSERT_TRUE(becomes([&] { return neither_has(1, address) && has_lost_all(); }));
    go_down_and_up();
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    EXPECT_TRUE(has_lost_all());
    EXPECT_TRUE(neither_has(1, address));
    EXPECT_EQ(run({"keep", "--list"}).output, "");
}

TEST_F(KeeperTest, WhatTheStoreDoesNotLetItRememberIsRememberedLater) {
    store.remove_gateway(1);
    ASSERT_TRUE(becomes([&] { return device.static_gateways("eth0").empty(); }));
    const std::string node = "/Software/tandrel/Keeper/Links/eth0";
    store.write(node + "/Addresses", "a leaf where a node should be");
    device.set_up("eth0", false);
    expect_loss();
    ASSERT_TRUE(said("the settings store refuses to keep what must be remembered; trying again "
                     "every second"));
    store.remove(node);
    device.set_up("eth0");
    EXPECT_TRUE(becomes([&] { return both_have(1, address); })) << run({"check"}).output;
    EXPECT_EQ(store.node_of(1, address), "office");
}

TEST_F(KeeperTest, AGatewaySetAndRemovedWhileItWasAwayReplacesTheRememberedOne) {
    device.set_up("eth0", false);
    expect_loss();
    ASSERT_TRUE(said("eth0: gateway fe80::1 was removed from the store ("));
    ASSERT_TRUE(said("eth0: 2001:db8::5/64 was removed from the store ("));
    stop_keeper();
    store.set_gateway(1, "fe80::2");
    store.remove_gateway(1);
    start_keeper();
    device.set_up("eth0");
    EXPECT_TRUE(becomes([&] { return both_have(1, address); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    EXPECT_FALSE(store.gateway(1));
    EXPECT_EQ(run({"keep", "--list"}).output, "");
}

TEST_F(KeeperTest, WhatIsForgottenStaysAway) {
    device.set_up("eth0", false);
    expect_loss();
    ASSERT_TRUE(becomes([&] {
        return contains(run({"keep", "--list"}).output, "gateway fe80::1");
    }));
    ASSERT_TRUE(becomes([&] {
        return contains(run({"keep", "--list"}).output, "2001:db8::5/64");
    }));
    done({"keep", "--forget", "eth0", "2001:db8::5"});
    const result_t again = run({"keep", "--forget", "eth0", "2001:db8::5"});
    EXPECT_EQ(again.status, 1);
    EXPECT_EQ(again.errors, "tandrelctl: nothing is remembered for 2001:db8::5 on eth0\n");
    device.set_up("eth0");
    EXPECT_TRUE(becomes([&] { return store.gateway(1) == gateway; }));
    EXPECT_TRUE(store.node_of(1, address).empty());
}

TEST_F(KeeperTest, WhatIsStoredAgainIsNotSetTwice) {
    device.set_up("eth0", false);
    expect_loss();
    ASSERT_TRUE(said("eth0: 2001:db8::5/64 was removed from the store ("));
    ASSERT_TRUE(said("eth0: gateway fe80::1 was removed from the store ("));
    store.set_address(1, "lab", "2001:db8::5/48");
    store.set_gateway(1, "fe80::2");
    EXPECT_TRUE(said("eth0: 2001:db8::5/64 was forgotten (stored again)"));
    EXPECT_TRUE(said("eth0: gateway fe80::1 was forgotten (a gateway is stored again)"));
    device.set_up("eth0");
    EXPECT_TRUE(becomes([&] { return device.has_address("eth0", "2001:db8::5/48"); }))
        << "the kernel refused it while the link was down";
    EXPECT_TRUE(becomes(
        [&] { return device.static_gateways("eth0") == std::vector<std::string>{"fe80::2"}; }));
    EXPECT_EQ(store.node_of(1, address), "");
}

TEST_F(KeeperTest, ATakenNodeIsLeftAlone) {
    device.set_up("eth0", false);
    expect_loss();
    ASSERT_TRUE(said("eth0: 2001:db8::5/64 was removed from the store ("));
    store.set_address(1, "office", "2001:db8::6/64");
    device.set_up("eth0");
    EXPECT_TRUE(becomes([&] { return both_have(1, address) && both_have(1, "2001:db8::6/64"); }));
    EXPECT_EQ(store.node_of(1, "2001:db8::6/64"), "office");
}

TEST_F(KeeperTest, AnInterfaceNodeThatIsDeletedIsForgotten) {
    device.set_up("eth0", false);
    expect_loss();
    ASSERT_TRUE(becomes([&] {
        return contains(run({"keep", "--list"}).output, "2001:db8::5/64");
    }));
    run({"interface", "del", "eth0", "--force"});
    run({"interface", "add", "eth0"});
    device.set_up("eth0");
    ASSERT_TRUE(becomes([&] { return !device.link_local("eth0").empty(); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    EXPECT_TRUE(has_lost_all());
    EXPECT_EQ(run({"keep", "--list"}).output, "");
}

TEST_F(KeeperTest, AnInterfaceNodeAndTheMemoryOfItAreDeletedAtOnce) {
    device.set_up("eth0", false);
    expect_loss();
    ASSERT_TRUE(said("eth0: gateway fe80::1 was removed from the store ("));
    ASSERT_TRUE(said("eth0: 2001:db8::5/64 was removed from the store ("));
    const auto list = [&] { return run({"keep", "--list"}).output; };
    const std::string before = list();
    run({"interface", "del", "eth0", "--force"});
    EXPECT_EQ(list(), "");
    EXPECT_EQ(tav({"undo"}), 0);
    EXPECT_EQ(list(), before);
    run({"interface", "del", "eth0", "--force", "--confirm", "3"});
    EXPECT_EQ(list(), "");
    ASSERT_TRUE(settle()); // any edit wakes the keeper
    EXPECT_TRUE(becomes([&] { return list() == before; })) << list();
    device.set_up("eth0");
    expect_return();
}

TEST_F(KeeperTest, TheDeletionOfTheNodeOfALinkThatIsUpCanBeUndone) {
    go_down_and_up(); // the keeper has remembered something about the link
    expect_return();
    EXPECT_EQ(run({"interface", "del", "eth0", "--force"}).status, 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(1500)); // until it would finish a removal
    ASSERT_EQ(tav({"undo"}), 0);
    expect_return();
}

TEST_F(KeeperTest, AGatewayThatSomebodyAddsAgainIsRestoredLater) {
    ASSERT_EQ(run({"gateway", "clear", "eth0", "--wait=60"}).status, 0);
    device.add_route({"::/0", gateway, "eth0", 4});
    ASSERT_TRUE(becomes([&] { return store.gateway(1) == gateway; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(6500)); // it was not the daemon's echo
    device.set_up("eth0", false);
    expect_loss();
    device.set_up("eth0");
    expect_return();
}

TEST_F(KeeperTest, AReplacedAddressThatIsLostWithItsLinkIsRevertedWhole) {
    EXPECT_EQ(
        run({"address", "replace", "eth0", "2001:db8::5/48", "--confirm", "5", "--wait=4"}).status,
        0);
    device.set_up("eth0", false);
    expect_loss();
    ASSERT_TRUE(becomes([&] { return store.node_of(1, address) == "office"; }));
    device.set_up("eth0");
    ASSERT_TRUE(becomes([&] { return device.has_address("eth0", address); }));
    expect_return();
    EXPECT_FALSE(device.has_address("eth0", "2001:db8::5/48"));
    EXPECT_EQ(store.node_of(1, "2001:db8::5/48"), "");
}

TEST_F(KeeperTest, WhatItRemembersCountsAsStored) {
    device.set_up("eth0", false);
    expect_loss();
    ASSERT_TRUE(becomes([&] { return contains(run({"keep", "--list"}).output, gateway); }));
    const result_t early = run({"wait", "eth0", "--timeout", "0.1"});
    EXPECT_EQ(early.status, 4);
    EXPECT_TRUE(contains(early.errors, "eth0: 2001:db8::5/64\n")) << early.errors;
    EXPECT_EQ(run({"wait", "--online", "--timeout=0"}).status, 4);
    EXPECT_EQ(run({"interface", "del", "eth0"}).status, 1);
    EXPECT_EQ(run({"gateway", "clear", "eth0"}).status, 0);
    device.set_up("eth0");
    EXPECT_EQ(run({"wait", "eth0", "--timeout", "60"}).status, 0);
    EXPECT_TRUE(device.has_address("eth0", address));
    EXPECT_TRUE(device.static_gateways("eth0").empty());
}

TEST_F(KeeperTest, RoutesWithAGatewayDoNotKeepItBusy) {
    ASSERT_TRUE(settle());
    const auto listed = [&] { // milliseconds since it last read the store
        kt::spawn_options_t options;
        options.environment["TAV_SOCKET"] = service.socket();
        kt::Process tool(sandbox, {kt::program("TAV"), "status", "--json"}, options);
        EXPECT_EQ(tool.wait_exit(), 0);
        tool.output().wait_finished();
        std::string text;
        for (const kt::line_t &line : tool.output().lines()) {
            text += line.text;
        }
        const auto status = nlohmann::json::parse(text);
        for (const auto &watchdog : status["watchdogs"]) {
            for (const auto &client : status["clients"]) {
                if (watchdog["name"] == "tandrel-keep" && client["pid"] == watchdog["pid"]) {
                    return client["last_listing_ms"].get<long>();
                }
            }
        }
        return -1L;
    };
    ASSERT_TRUE(becomes([&] { return listed() >= 300; }));
    const long before = listed();
    for (int i = 0; i < 50; ++i) {
        device.add_route({"2001:db8:" + std::to_string(1000 + i) + "::/48", gateway, "eth0", 3});
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_GE(listed(), before + 300) << "it has read the store again";
}

TEST_F(KeeperTest, WhatAChangeSetIsForgottenWhenItIsReverted) {
    const std::string lab = "2001:db8:7::7/64";
    EXPECT_EQ(run({"address", "add", "eth0", lab, "--confirm", "6", "--wait=5"}).status, 0);
    EXPECT_EQ(run({"gateway", "set", "eth0", "fe80::2", "--confirm", "6", "--wait=5"}).status, 0);
    device.set_up("eth0", false);
    ASSERT_TRUE(said("eth0: " + lab + " was removed from the store (link down)"));
    ASSERT_TRUE(said("eth0: 2001:db8::5/64 was removed from the store ("));
    ASSERT_TRUE(said("eth0: gateway fe80::2 was removed from the store ("));
    ASSERT_TRUE(becomes([&] { return store.gateway(1) == gateway; })) << "it is reverted";
    device.set_up("eth0");
    EXPECT_TRUE(said("eth0: " + lab + " was forgotten (change "));
    expect_return();
    EXPECT_EQ(store.node_of(1, lab), "");
    EXPECT_FALSE(device.has_address("eth0", lab));
}

TEST_F(KeeperTest, WhatAChangeStoredAgainIsRememberedAgainWhenItIsReverted) {
    device.set_up("eth0", false);
    expect_loss();
    EXPECT_EQ(run({"address", "add", "eth0", address, "--confirm", "3", "--force"}).status, 0);
    EXPECT_EQ(run({"gateway", "set", "eth0", "fe80::2", "--confirm", "3", "--force"}).status, 0);
    const auto is_remembered = [&] {
        const std::string list = run({"keep", "--list"}).output;
        return contains(list, address) && contains(list, gateway);
    };
    ASSERT_TRUE(becomes([&] { return has_lost_all() && is_remembered(); }));
    device.set_up("eth0");
    expect_return();
}

TEST_F(KeeperTest, AReversionWhileTheDaemonIsAwayIsFinished) {
    rebuilds_allowed = true;
    const std::string lab = "2001:db8:7::7/64";
    EXPECT_EQ(run({"address", "add", "eth0", lab, "--confirm", "3", "--wait=3"}).status, 0);
    run({"gateway", "set", "eth0", "fe80::bad", "--confirm", "3"});
    ASSERT_EQ(stop_daemon(), 0);
    ASSERT_TRUE(said("eth0: " + lab + " was removed from the store but is still in the kernel"));
    start_daemon_and_wait();
    EXPECT_TRUE(becomes([&] { return neither_has(1, lab); })) << run({"check"}).output;
    expect_return();
}

TEST_F(KeeperTest, ItsMemorySurvivesItsRestart) {
    device.set_up("eth0", false);
    expect_loss();
    ASSERT_TRUE(becomes([&] {
        return contains(run({"keep", "--list"}).output, "gateway fe80::1");
    }));
    keeper->signal(SIGKILL);
    keeper->wait_exit();
    start_keeper();
    device.set_up("eth0");
    expect_return();
}

TEST_F(KeeperTest, WhatLeftWhileItDidNotRunIsSetAgainAsUncertain) {
    stop_keeper();
    go_down_and_up();
    expect_loss();
    start_keeper();
    expect_return();
    EXPECT_TRUE(said("was removed from the store (uncertain: cause not seen)"));
}

TEST_F(KeeperTest, ChangesThatTheHistoryLacksMakeTheOthersUncertain) {
    stop_keeper();
    go_down_and_up();
    expect_loss();
    for (int i = 0; i < 1100; ++i) { // more than the history has of others than services
        store.write("/Software/other/Value", std::to_string(i));
    }
    start_keeper();
    expect_return();
    EXPECT_TRUE(said("was removed from the store (uncertain: cause not seen)"));
    const auto gaps = [&] {
        std::size_t number = 0;
        for (const auto &line : keeper->output().lines()) {
            number += contains(line.text, "changes in the store were missed") ? 1U : 0U;
        }
        return number;
    };
    EXPECT_EQ(gaps(), 1U);
    ASSERT_TRUE(settle());
    EXPECT_EQ(gaps(), 1U) << "it is said once";
}

TEST_F(KeeperTest, WhatItSawDeletedStaysAwayAfterItsRestart) {
    device.delete_address("eth0", address);
    ASSERT_TRUE(said("eth0: 2001:db8::5/64 was deleted in the kernel and will not be restored"));
    ASSERT_TRUE(becomes([&] { return run({"keep", "--list"}).status == 0; }));
    keeper->signal(SIGKILL);
    keeper->wait_exit();
    start_keeper();
    EXPECT_TRUE(neither_has(1, address));
    EXPECT_EQ(run({"keep", "--list"}).output, "");
}

TEST_F(KeeperTest, ARemovalWhileTheDaemonIsAwayIsFinished) {
    rebuilds_allowed = true;
    ASSERT_EQ(stop_daemon(), 0);
    store.remove_address(1, "office");
    ASSERT_TRUE(said("eth0: 2001:db8::5/64 was removed from the store but is still in the kernel"));
    start_daemon_and_wait();
    EXPECT_TRUE(becomes([&] { return neither_has(1, address); })) << run({"check"}).output;
    EXPECT_TRUE(becomes([&] { return run({"keep", "--list"}).output.empty(); }));
    EXPECT_TRUE(settle());
    EXPECT_TRUE(neither_has(1, address));
}

TEST_F(KeeperTest, ARemovalWhileBothAreAwayIsFinished) {
    rebuilds_allowed = true;
    stop_keeper();
    ASSERT_EQ(stop_daemon(), 0);
    store.remove_address(1, "office");
    start_daemon_and_wait();
    EXPECT_TRUE(becomes([&] { return store.has_address(1, address, "Automatic"); }));
    start_keeper();
    EXPECT_TRUE(becomes([&] { return neither_has(1, address); })) << run({"check"}).output;
}

TEST_F(KeeperTest, AnAddressAddedInTheKernelAfterItsRemovalStays) {
    store.remove_address(1, "office");
    ASSERT_TRUE(becomes([&] { return neither_has(1, address); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    device.add_address("eth0", address);
    EXPECT_TRUE(becomes([&] { return store.has_address(1, address, "Automatic"); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    EXPECT_TRUE(store.has_address(1, address, "Automatic"));
}

TEST_F(KeeperTest, AGatewayIsInstalledOnceANetworkContainsIt) {
    store.set_gateway(1, "2001:db8:9::1");
    ASSERT_TRUE(settle());
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    EXPECT_TRUE(device.static_gateways("eth0").empty());
    device.add_address("eth0", "2001:db8:9::5/64");
    EXPECT_TRUE(becomes([&] {
        return device.static_gateways("eth0") == std::vector<std::string>{"2001:db8:9::1"};
    }));
}

TEST_F(KeeperTest, ADuplicateIsTriedAgainUntilItIsSolved) {
    kt::write_file("/proc/sys/net/ipv6/conf/eth0/accept_dad", "1");
    neighbour.add_address("peer0", "2001:db8::7/64");
    ASSERT_TRUE(becomes([&] { return is_usable(neighbour, "peer0", "2001:db8::7/64"); }));
    store.set_address(1, "lab", "2001:db8::7/64");
    ASSERT_TRUE(said("eth0: 2001:db8::7/64 has a duplicate on the network; trying again"));
    neighbour.delete_address("peer0", "2001:db8::7/64");
    EXPECT_TRUE(becomes([&] {
        return is_usable(device, "eth0", "2001:db8::7/64") &&
               store.node_of(1, "2001:db8::7/64") == "lab";
    }));
    expect_return();
}

TEST_F(KeeperTest, AStaticAddressWhoseLifetimeEndsComesBack) {
    kt::address_options_t options;
    options.valid_seconds = 3;
    device.add_address("eth0", "2001:db8::8/64", options);
    ASSERT_TRUE(becomes([&] { return store.has_address(1, "2001:db8::8/64", "Automatic"); }));
    store.write(kt::paths::type_value(1, store.node_of(1, "2001:db8::8/64")), "Static");
    EXPECT_TRUE(said("eth0: 2001:db8::8/64 was restored (lifetime ended)"));
    EXPECT_TRUE(becomes([&] {
        return both_have(1, "2001:db8::8/64") && store.has_address(1, "2001:db8::8/64", "Static");
    }));
}

TEST_F(KeeperTest, WithADamagedMemoryItBeginsAnew) {
    device.delete_address("eth0", address);
    ASSERT_TRUE(said("eth0: 2001:db8::5/64 was deleted in the kernel and will not be restored"));
    stop_keeper();
    store.write("/Software/tandrel/Keeper/Handled/Value", "none");
    store.write("/Software/tandrel/Keeper/Links/eth0/Gateway/Value", "none");
    start_keeper();
    device.set_up("eth0", false);
    ASSERT_TRUE(said("eth0: gateway fe80::1 was removed from the store (link down)"));
    device.set_up("eth0");
    EXPECT_TRUE(becomes([&] { return store.gateway(1) == gateway; }));
    EXPECT_EQ(store.node_of(1, address), "") << "it was deleted";
    stop_keeper();
    store.write("/Software/tandrel/Keeper/Handled/Value", "999999");
    start_keeper();
    EXPECT_TRUE(said("changes in the store were missed"));
    store.set_address(1, "office", address);
    expect_return();
}

TEST_F(KeeperTest, WhatIsForgottenIsNotTriedAgain) {
    device.set_up("eth0", false);
    expect_loss();
    ASSERT_TRUE(said("eth0: gateway fe80::1 was removed from the store ("));
    ASSERT_TRUE(said("eth0: 2001:db8::5/64 was removed from the store ("));
    store.remove("/Software/tandrel");
    device.set_up("eth0");
    ASSERT_TRUE(becomes([&] { return !device.link_local("eth0").empty(); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    const long before = switches();
    std::this_thread::sleep_for(std::chrono::seconds(5));
    EXPECT_EQ(switches(), before);
    EXPECT_TRUE(has_lost_all());
}

TEST_F(KeeperTest, WhatTheKernelReportsTooFastIsReadAgain) {
    rebuilds_allowed = true; // the daemon may be too slow, too
    keeper->signal(SIGSTOP);
    for (int i = 0; i < 200000 && (i % 100 != 0 || !kernel_has_dropped_messages()); ++i) {
        device.set_mtu("eth0", i % 2 == 0 ? 1400 : 1500);
    }
    device.set_up("eth0", false);
    expect_loss();
    keeper->signal(SIGCONT);
    ASSERT_TRUE(
        said("eth0: 2001:db8::5/64 was removed from the store (uncertain: cause not seen)"));
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    EXPECT_TRUE(has_lost_all()) << "the link is down";
    device.set_up("eth0");
    expect_return();
}

TEST_F(KeeperTest, AStoreWithoutAHistoryIsNoUse) {
    const std::string socket = sandbox.directory() + "/other.sock";
    kt::Process other(sandbox,
                      {kt::program("TAVD"), "--memory", "--history", "0", "--socket", socket,
                       "--initial-node", kt::paths::interfaces},
                      {});
    kt::Store probe(socket);
    ASSERT_TRUE(becomes([&] { return probe.reachable(); }));
    kt::spawn_options_t options;
    options.environment["TAV_SOCKET"] = socket;
    kt::Process useless(sandbox, {TANDRELCTL, "keep"}, options);
    EXPECT_EQ(useless.wait_exit(), 1);
    EXPECT_NE(useless.errors().wait_for_containing(
                  "tandrelctl: the store keeps no history of its changes, which 'keep' needs"),
              0U);
    probe.disconnect();
    other.signal(SIGTERM);
    EXPECT_EQ(other.wait_exit(), 0);
}

TEST_F(KeeperTest, OnlyOneRuns) {
    const result_t second = run({"keep"});
    EXPECT_EQ(second.status, 1);
    EXPECT_TRUE(contains(second.errors, "another 'tandrelctl keep' is already running"))
        << second.errors;
}

TEST_F(KeeperTest, StatusShowsIt) {
    const result_t status = run({"status"});
    EXPECT_TRUE(contains(status.output, "tandrel-keep")) << status.output;
}

TEST_F(KeeperTest, ItSleepsWhenNothingHappens) {
    ASSERT_TRUE(settle());
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    const long before = switches();
    std::this_thread::sleep_for(std::chrono::seconds(3));
    EXPECT_EQ(switches(), before);
}

class KeeperWithADatabase : public KeeperTest {
protected:
    KeeperWithADatabase() : KeeperTest(kt::Service::Keep::database) { rebuilds_allowed = true; }

    void restart_store() {
        store.disconnect();
        service.crash();
        service.start();
    }
};

TEST_F(KeeperWithADatabase, ARestartOfTheStoreLosesNothing) {
    device.set_up("eth0", false);
    expect_loss();
    ASSERT_TRUE(said("eth0: gateway fe80::1 was removed from the store ("));
    restart_store();
    device.set_up("eth0");
    expect_return();
}

TEST_F(KeeperWithADatabase, ADaemonThatReconnectsKnowsLinksByTheirPresentNames) {
    give_name_to_another_link();
    restart_store();
    EXPECT_TRUE(becomes([&] { return is_complete(); })) << run({"keep", "--list"}).output;
    EXPECT_EQ(run({"keep", "--list"}).output, "");
}

TEST_F(KeeperWithADatabase, ARemovalRightAfterARestartOfTheStoreIsFinished) {
    restart_store();
    store.remove_address(1, "office"); // the daemon waits for ten seconds
    EXPECT_TRUE(said("eth0: 2001:db8::5/64 was removed from the store but is still in the kernel"));
    EXPECT_TRUE(said("eth0: 2001:db8::5/64 was removed (removed from the store while tandrel was "
                     "disconnected)"));
    EXPECT_TRUE(becomes([&] { return neither_has(1, address); })) << run({"check"}).output;
    EXPECT_EQ(store.gateway(1), gateway);
}

class KeeperOfAnotherPrefix : public CtlTest {
protected:
    void SetUp() override {
        add_eth(0, "wlan");
        service.start();
        ASSERT_TRUE(becomes([&] { return !device.link_local("wlan0").empty(); }));
    }
};

TEST_F(KeeperOfAnotherPrefix, KeepsThoseLinks) {
    store.set_address(1, "office", "2001:db8::5/64");
    start_daemon_and_wait({"-d", "-D", "4", "-i", "wlan"});
    ASSERT_TRUE(becomes([&] { return device.has_address("wlan0", "2001:db8::5/64"); }));
    const auto keeper = begin({"-i", "wlan", "keep"});
    ASSERT_NE(
        keeper->output().wait_for_containing("watching the links whose names begin with wlan"), 0U);
    device.set_up("wlan0", false);
    ASSERT_TRUE(becomes([&] { return store.node_of(1, "2001:db8::5/64").empty(); }));
    device.set_up("wlan0");
    EXPECT_TRUE(becomes([&] { return device.has_address("wlan0", "2001:db8::5/64"); }));
    keeper->signal(SIGTERM);
    EXPECT_EQ(keeper->wait_exit(), 0);
}

} // namespace
