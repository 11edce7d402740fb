// Random sequences of what happens to a link, to the programs, and of deletions by hand. Whenever
// the link can carry settings, it has all that were set, and nothing that was deleted while the
// programs ran and the link was quiet. What was deleted at another moment may come back.
//
// KEEPER_STEPS: how many (few without it). KEEPER_SEED: the sequence.
#include <chrono>
#include <iostream>
#include <iterator>
#include <map>
#include <random>
#include <set>
#include <thread>

#include "ctl_test.h"

namespace {

class KeeperRandomly : public CtlTest {
protected:
    KeeperRandomly() : CtlTest(kt::Service::Keep::database) { rebuilds_allowed = true; }

    void SetUp() override {
        CtlTest::SetUp();
        device.add_bridge("br0");
        seed = from_environment("KEEPER_SEED", 1);
        random.seed(seed);
        start_daemon_and_wait();
        set_addresses();
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
            std::cout << "The store:\n" << store.dump();
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
    void pause_up_to(unsigned milliseconds) { pause(static_cast<int>(choose(milliseconds))); }
    void note(const std::string &text) { steps.push_back(text); }

    void start_keeper() {
        keeper = begin({"keep"});
        ASSERT_NE(keeper->output().wait_for_containing("watching the links"), 0U);
        pause(1500);
    }

    // --- what somebody sets and deletes
    void set_addresses() {
        for (unsigned left = 1 + choose(4); left > 0 && addresses.size() < 12; --left) {
            const std::string text = "2001:db8::" + std::to_string(++last_address) + "/64";
            note("set " + text);
            store.set_address(1, "node" + std::to_string(choose(4) + 4 * last_address), text);
            addresses.insert(text);
        }
    }
    void set_gateway() {
        gateway = "fe80::" + std::to_string(choose(9) + 1);
        note("set the gateway " + gateway);
        store.set_gateway(1, gateway);
    }
    // Deletes one; returns whether it was there.
    bool delete_address(const std::string &text) {
        const bool in_store = choose(2) == 0;
        note(std::string("delete ") + text + (in_store ? " in the store" : " in the kernel"));
        if (!in_store) {
            return device.index("eth0") != 0 && device.try_delete_address("eth0", text) == 0;
        }
        const std::string node = store.reachable() ? store.node_of(1, text) : "";
        return !node.empty() && store.try_remove(kt::paths::address(1, node)) == api_status_ok;
    }
    void delete_gateway() {
        if (choose(2) == 0) {
            note("delete the gateway in the store");
            store.remove_gateway(1);
        } else {
            note("delete the gateway in the kernel");
            kt::kernel_route_t route;
            route.gateway = gateway;
            route.link = "eth0";
            device.delete_route(route);
        }
        gateway.clear();
        ++certain;
    }
    std::string any_address() {
        return *std::next(addresses.begin(), static_cast<int>(choose(unsigned(addresses.size()))));
    }
    // Quiet before and after, so that the cause is certain.
    void delete_some() {
        ASSERT_TRUE(settle()); // the daemon may wait for a restarted store
        pause(1200);
        for (unsigned left = 1 + choose(4); left > 0 && !addresses.empty(); --left) {
            const std::string text = any_address();
            EXPECT_TRUE(delete_address(text)) << text;
            addresses.erase(text);
            ++certain;
        }
        if (!gateway.empty() && choose(4) == 0) {
            // A synchronisation at this moment would add the route again.
            ASSERT_TRUE(settle());
            delete_gateway();
        }
        EXPECT_TRUE(becomes([&] { return wrong().empty(); })) << wrong();
        pause(1300);
    }
    // While something happens.
    void delete_at_any_time() {
        if (!addresses.empty() && choose(3) == 0) {
            const std::string text = any_address();
            if (delete_address(text)) {
                addresses.erase(text);
                unsure.insert(text);
            }
        }
    }

    // --- what happens to the link
    void go_down() {
        note("down and up");
        device.set_up("eth0", false);
        pause_up_to(500);
        device.set_up("eth0");
    }
    void shrink() {
        note("small MTU and back");
        device.set_mtu("eth0", 1200);
        pause_up_to(500);
        device.set_mtu("eth0", 1500);
    }
    void lose_ipv6() {
        note("IPv6 disabled and enabled");
        kt::write_file("/proc/sys/net/ipv6/conf/eth0/disable_ipv6", "1");
        pause_up_to(500);
        kt::write_file("/proc/sys/net/ipv6/conf/eth0/disable_ipv6", "0");
    }
    void unplug() {
        note("unplugged and plugged in");
        device.delete_link("eth0");
        pause_up_to(500);
        add_eth(0);
    }
    void move() {
        note("moved away and back");
        device.move_link("eth0", sandbox.neighbour());
        pause_up_to(500);
        neighbour.move_link("eth0", sandbox.device());
        device.set_up("eth0");
    }
    void join_bridge() {
        note("into a bridge, down and up, and out again");
        device.set_master("eth0", "br0");
        go_down();
        device.set_master("eth0", "");
    }
    void change_link() {
        using action_t = void (KeeperRandomly::*)();
        static constexpr action_t actions[] = {
            &KeeperRandomly::go_down, &KeeperRandomly::shrink, &KeeperRandomly::lose_ipv6,
            &KeeperRandomly::unplug,  &KeeperRandomly::move,   &KeeperRandomly::join_bridge,
        };
        (this->*actions[choose(std::size(actions))])();
        ++link_events;
    }
    void change_link_often() {
        for (unsigned left = 1 + choose(4); left > 0; --left) {
            delete_at_any_time();
            change_link();
            pause_up_to(300);
        }
        delete_at_any_time();
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
            change_link();
        }
        delete_at_any_time();
    }
    void restart_a_program() {
        using action_t = void (KeeperRandomly::*)();
        static constexpr action_t actions[] = {
            &KeeperRandomly::restart_daemon,
            &KeeperRandomly::restart_keeper,
            &KeeperRandomly::restart_store,
        };
        (this->*actions[choose(std::size(actions))])();
        ++restarts;
    }

    void step() {
        const unsigned number = choose(20);
        if (number < 8) {
            change_link_often();
        } else if (number < 10) {
            restart_a_program();
        } else if (number < 13) {
            set_addresses();
        } else if (number < 14) {
            set_gateway();
        } else {
            delete_some();
        }
    }

    // What differs from what should be; empty: nothing.
    std::string wrong() {
        std::map<std::string, std::pair<bool, bool>> found; // in the store, in the kernel
        for (const kt::stored_address_t &one : store.addresses(1)) {
            if (one.type != "Link-Local") {
                found[one.address].first = one.type == "Static";
            }
        }
        for (const kt::kernel_address_t &one : device.addresses("eth0")) {
            if (one.text.compare(0, 9, "2001:db8:") == 0) {
                found[one.text].second = true;
            }
        }
        for (const std::string &text : addresses) {
            const auto &[stored, present] = found[text];
            if (!stored || !present) {
                return "lost " + text;
            }
        }
        for (const auto &[text, places] : found) {
            if (unsure.count(text) != 0 ? places.first != places.second
                                        : addresses.count(text) == 0) {
                return "came back: " + text;
            }
        }
        const std::vector<std::string> gateways = device.static_gateways("eth0");
        const bool right = gateway.empty() ? !store.gateway(1) && gateways.empty()
                                           : store.gateway(1) == gateway &&
                                                 gateways == std::vector<std::string>{gateway};
        return right ? "" : "not the gateway '" + gateway + "'";
    }

    // Waits for what becomes of the deletions at any time.
    void decide() {
        if (unsure.empty()) {
            return;
        }
        ASSERT_TRUE(becomes([&] { return run({"keep", "--list"}).output.empty(); }));
        ASSERT_TRUE(settle());
        pause(1200);
        ASSERT_TRUE(becomes([&] {
            return wrong().empty() && run({"keep", "--list"}).output.empty();
        })) << wrong();
        for (const std::string &text : unsure) {
            const bool undone = !store.node_of(1, text).empty();
            ++uncertain;
            undone_deletions += undone ? 1 : 0;
            note(text + (undone ? " is back" : " stays away"));
            if (undone) {
                addresses.insert(text);
            }
        }
        unsure.clear();
    }

    unsigned seed = 0;
    std::mt19937 random;
    std::vector<std::string> steps;
    std::set<std::string> addresses; // that were set
    std::set<std::string> unsure;    // deleted while something happened
    std::string gateway;             // empty: none
    unsigned last_address = 0;
    unsigned link_events = 0, restarts = 0, certain = 0, uncertain = 0, undone_deletions = 0;
    std::unique_ptr<kt::Process> keeper;
};

TEST_F(KeeperRandomly, WhatWasSetStaysSetAndWhatWasDeletedStaysAway) {
    const unsigned number = from_environment("KEEPER_STEPS", 8);
    for (unsigned count = 0; count < number; ++count) {
        step();
        ASSERT_TRUE(becomes([&] { return wrong().empty(); }))
            << "step " << count << ": " << wrong();
        decide();
        ASSERT_FALSE(HasFailure()) << "step " << count;
    }
    std::cout << "kept: seed " << seed << ", " << link_events << " link events, " << restarts
              << " restarts, " << certain << " certain deletions, " << uncertain
              << " uncertain deletions, " << undone_deletions << " of them undone\n";
}

} // namespace
