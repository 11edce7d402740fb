// Random sequences of what happens to a link, to the programs, and of deletions by hand. Whenever
// the link can carry settings, it has all that were set, and nothing that was deleted.
//
// KEEPER_SECONDS: how long (a few steps without it). KEEPER_SEED: the sequence.
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <random>
#include <set>
#include <thread>

#include "ctl_test.h"

namespace {

unsigned from_environment(const char *name, unsigned otherwise) {
    const char *text = std::getenv(name);
    return text != nullptr ? static_cast<unsigned>(std::stoul(text)) : otherwise;
}

class KeeperRandomly : public CtlTest {
protected:
    KeeperRandomly() : CtlTest(kt::Service::Keep::database) { rebuilds_allowed = true; }

    void SetUp() override {
        CtlTest::SetUp();
        device.add_bridge("br0");
        seed = from_environment("KEEPER_SEED", 1);
        random.seed(seed);
        start_daemon_and_wait();
        set_address();
        set_gateway();
        start_keeper();
    }
    void TearDown() override {
        if (HasFailure()) {
            std::cout << "seed " << seed << "\n";
            for (const std::string &line : steps) {
                std::cout << "  " << line << "\n";
            }
            std::cout << "The keeper's lines:\n" << keeper->output().tail(60);
        }
        if (keeper->running()) {
            keeper->signal(SIGTERM);
            EXPECT_EQ(keeper->wait_exit(), 0);
        }
        CtlTest::TearDown();
    }

    unsigned choose(unsigned number) {
        return std::uniform_int_distribution(0U, number - 1)(random);
    }
    static void pause(int milliseconds) {
        std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
    }
    void note(const std::string &text) { steps.push_back(text); }

    void start_keeper() {
        keeper = begin({"keep"});
        ASSERT_NE(keeper->output().wait_for_containing("watching the links"), 0U);
        pause(1500);
    }

    // --- what somebody sets and deletes
    void set_address() {
        const std::string text = "2001:db8::" + std::to_string(++last_address) + "/64";
        note("set " + text);
        store.set_address(1, "node" + std::to_string(choose(4) + 4 * last_address), text);
        addresses.insert(text);
    }
    void set_gateway() {
        gateway = "fe80::" + std::to_string(choose(9) + 1);
        note("set the gateway " + gateway);
        store.set_gateway(1, gateway);
    }
    // Quiet before and after, so that the cause is certain.
    void delete_one() {
        if (addresses.empty()) {
            return;
        }
        const std::string text = *std::next(addresses.begin(), choose(unsigned(addresses.size())));
        const bool in_store = choose(2) == 0;
        ASSERT_TRUE(settle()); // the daemon may wait for a restarted store
        note(std::string("delete ") + text + (in_store ? " in the store" : " in the kernel"));
        pause(1200);
        if (in_store) {
            store.remove_address(1, store.node_of(1, text));
        } else {
            device.delete_address("eth0", text);
        }
        addresses.erase(text);
        deleted.insert(text);
        EXPECT_TRUE(becomes([&] { return neither_has(1, text); })) << text;
        pause(1300);
    }

    // --- what happens to the link
    void go_down() {
        note("down and up");
        device.set_up("eth0", false);
        pause(static_cast<int>(choose(3)) * 200);
        device.set_up("eth0");
    }
    void shrink() {
        note("small MTU and back");
        device.set_mtu("eth0", 1200);
        pause(static_cast<int>(choose(3)) * 200);
        device.set_mtu("eth0", 1500);
    }
    void lose_ipv6() {
        note("IPv6 disabled and enabled");
        kt::write_file("/proc/sys/net/ipv6/conf/eth0/disable_ipv6", "1");
        pause(static_cast<int>(choose(3)) * 200);
        kt::write_file("/proc/sys/net/ipv6/conf/eth0/disable_ipv6", "0");
    }
    void unplug() {
        note("unplugged and plugged in");
        device.delete_link("eth0");
        pause(static_cast<int>(choose(3)) * 200);
        add_eth(0);
    }
    void move() {
        note("moved away and back");
        device.move_link("eth0", sandbox.neighbour());
        pause(static_cast<int>(choose(3)) * 200);
        neighbour.move_link("eth0", sandbox.device());
        device.set_up("eth0");
    }
    void join_bridge() {
        note("into a bridge, down and up, and out again");
        device.set_master("eth0", "br0");
        go_down();
        device.set_master("eth0", "");
    }

    // --- what happens to the programs, perhaps while something happens to the link
    void restart_daemon() {
        note("the daemon restarts");
        if (choose(2) == 0) {
            daemon->signal(SIGKILL);
            daemon->wait();
        } else {
            EXPECT_EQ(stop_daemon(), 0);
        }
        maybe_meanwhile();
        start_daemon_and_wait();
    }
    void restart_keeper() {
        note("the keeper restarts");
        keeper->signal(choose(2) == 0 ? SIGKILL : SIGTERM);
        keeper->wait();
        maybe_meanwhile();
        start_keeper();
    }
    void restart_store() {
        note("the store restarts");
        store.disconnect();
        service.crash();
        maybe_meanwhile();
        service.start();
    }
    void maybe_meanwhile() {
        if (choose(2) == 0) {
            go_down();
        }
    }

    void step() {
        using action_t = void (KeeperRandomly::*)();
        static constexpr action_t actions[] = {
            &KeeperRandomly::go_down,        &KeeperRandomly::go_down,
            &KeeperRandomly::shrink,         &KeeperRandomly::lose_ipv6,
            &KeeperRandomly::unplug,         &KeeperRandomly::move,
            &KeeperRandomly::join_bridge,    &KeeperRandomly::restart_daemon,
            &KeeperRandomly::restart_keeper, &KeeperRandomly::restart_store,
            &KeeperRandomly::set_address,    &KeeperRandomly::set_address,
            &KeeperRandomly::set_gateway,    &KeeperRandomly::delete_one,
            &KeeperRandomly::delete_one};
        (this->*actions[choose(std::size(actions))])();
    }

    std::string wrong() {
        for (const std::string &text : addresses) {
            if (!both_have(1, text)) {
                return "lost " + text;
            }
            if (!store.has_address(1, text, "Static")) {
                return "not Static: " + text;
            }
        }
        for (const std::string &text : deleted) {
            if (!neither_has(1, text)) {
                return "came back: " + text;
            }
        }
        return store.gateway(1) == gateway &&
                       device.static_gateways("eth0") == std::vector<std::string>{gateway}
                   ? ""
                   : "lost the gateway " + gateway;
    }

    unsigned seed = 0;
    std::mt19937 random;
    std::vector<std::string> steps;
    std::set<std::string> addresses, deleted;
    std::string gateway;
    unsigned last_address = 0;
    std::unique_ptr<kt::Process> keeper;
};

TEST_F(KeeperRandomly, WhatWasSetStaysSetAndWhatWasDeletedStaysAway) {
    const auto start = std::chrono::steady_clock::now();
    const std::chrono::seconds time(from_environment("KEEPER_SECONDS", 0));
    constexpr std::size_t fewest = 8;
    for (std::size_t count = 0; count < fewest || std::chrono::steady_clock::now() - start < time;
         ++count) {
        step();
        ASSERT_TRUE(becomes([&] { return wrong().empty(); }))
            << "step " << count << ": " << wrong();
    }
    std::cout << steps.size() << " steps, " << addresses.size() << " addresses kept, "
              << deleted.size() << " deleted\n";
}

} // namespace
