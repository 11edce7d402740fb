// The whole daemon, from its entry point to its end, over a small kernel and a small store with
// state: a disturbed run must leave both in the same state as an undisturbed one.
#pragma once

#include <functional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "fakes/log_capture.h"

// Fresh fakes with everything armed that a run calls. The kernel has eth0 (index 3) and eth1 (4),
// the store the interfaces 1 to 3; a synchronisation has something to do in both directions. Must
// exist inside a DaemonTest; each new object starts with the initial state.
class WholeDaemon {
public:
    WholeDaemon();

    // Runs when the daemon waits and there is nothing left to report; by default it asks the daemon
    // to end.
    std::function<void()> when_idle;
    // Runs before each datagram that the daemon receives, with the request that it answers (18
    // links, 22 addresses, 26 routes) and whether it is the last answer to it.
    std::function<void(int, bool)> before_answer;
    // Whether a select during a termination signal fails with EINTR; otherwise it finds the exit
    // pipe readable, as if it had begun just after the signal.
    bool interrupts = true;

    // Runs tandrel_main with these arguments: how it ended ("returned", "exit", ...) and its
    // status.
    struct end_t {
        std::string how;
        int status = 0;
    };
    end_t run(const std::vector<std::string> &arguments = {"-d", "-D", "4"});

    // What the kernel has now: "3 2001:db8::5/64", "3 via fe80::1", in alphabetical order.
    std::vector<std::string> kernel();
    // What the store has: "1 office 2001:db8::6/48 Static", "1 via fe80::9", in alphabetical order.
    // The daemon may choose the names of nodes: the names that it chose, all under interface 2, are
    // shown as "*".
    static std::vector<std::string> store();
    // Sockets, messages and store connections that were opened and not released.
    static int unreleased();

private:
    struct kernel_address_t {
        int ifindex;
        std::string text;
        int length;
        int scope;
        bool operator<(const kernel_address_t &other) const {
            return std::tie(ifindex, text, length) <
                   std::tie(other.ifindex, other.text, other.length);
        }
    };

    int select(long seconds, std::vector<int> &ready);
    void answer_requests();
    void follow_changes();

    std::set<kernel_address_t> addresses;
    std::set<std::pair<int, std::string>> gateways;
    std::size_t requests_answered = 0, changes_followed = 0;
    std::vector<int> answering; // the requests whose answers are queued
    bool exit_was_requested = false;
};

// For tests that disturb a run in its first engine: the second engine must correct everything.
class RebuildTest : public DaemonTest {
protected:
    RebuildTest();
    // Runs `action` between the first discovery and its synchronisation.
    static void at_first_synchronisation(WholeDaemon &daemon, std::function<void()> action);
    // Expects one rebuild, reported by this line, after which kernel and store are as after an
    // undisturbed run, and everything was released.
    void expect_one_rebuild_and_the_same_end(WholeDaemon &daemon,
                                             const std::string &caught = "Caught exception");

    std::vector<std::string> kernel_then;
    std::vector<std::string> store_then;
};
