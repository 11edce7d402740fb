// What tandrelctl shows of a real kernel and a real store.
#include <algorithm>
#include <csignal>

#include <linux/if_addr.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "ctl_test.h"
#include "terminal.h"

namespace {

using Look = CtlTest;

TEST_F(Look, AWorkingDaemonKeepsTheViewsInStep) {
    store.set_address(1, "office", "2001:db8::5/64");
    store.set_gateway(1, "fe80::1");
    start_daemon_and_wait();
    ASSERT_TRUE(becomes([&] { return in_step(); })) << run({"check"}).output;
    const result_t shown = run({"show", "eth0"});
    EXPECT_EQ(shown.status, 0) << shown.errors;
    EXPECT_TRUE(contains(shown.output,
                         "eth0, interface node 1, up, " + device.hardware_address("eth0") + "\n"))
        << shown.output;
    const std::string link_local = device.link_local("eth0");
    std::vector<std::string> rows;
    for (std::size_t at = 0; (at = shown.output.find("\n= ", at)) != std::string::npos; ++at) {
        rows.push_back(shown.output.substr(at + 3, shown.output.find(' ', at + 3) - at - 3));
    }
    std::sort(rows.begin(), rows.end());
    // A line of the legend also begins with the mark.
    EXPECT_EQ(rows, (std::vector<std::string>{"2001:db8::5/64", link_local, "the", "via"}));
    EXPECT_TRUE(contains(shown.output, "Static")) << shown.output;
    EXPECT_TRUE(contains(shown.output, "office")) << shown.output;
    EXPECT_EQ(run({"check", "--no-notes"}).output, "kernel and store agree\n");
    EXPECT_FALSE(contains(shown.output, "\x1b")) << "no colour but on a terminal";
    EXPECT_TRUE(contains(run({"--color=always", "show"}).output, "\x1b[32m= 2001:db8::5/64"));
}

TEST_F(Look, WithoutADaemonTheCheckSaysSoAndWhatDiffers) {
    if (!sees_all_processes()) {
        GTEST_SKIP() << sees_not_all;
    }
    store.set_address(1, "office", "2001:db8::5/64");
    store.set_address(1, "bad", "2001:db8::5", "Static");
    const result_t checked = run({"check", "eth0"});
    EXPECT_EQ(checked.status, 1);
    EXPECT_TRUE(contains(checked.output, "eth0: 2001:db8::5/64 (Static, node 'office') is in the "
                                         "store only"))
        << checked.output;
    EXPECT_TRUE(
        contains(checked.output,
                 "eth0: the stored address 'bad' is skipped: '2001:db8::5' has no prefix length"));
    EXPECT_TRUE(contains(checked.output, "tandrel: it is not running here"));
    const auto json = nlohmann::json::parse(run({"check", "--json", "eth0"}).output);
    EXPECT_EQ(json["agree"], false);
    std::vector<std::string> reasons;
    for (const auto &one : json["differences"]) {
        reasons.push_back(one["reason"]);
    }
    std::sort(reasons.begin(), reasons.end());
    EXPECT_EQ(reasons, (std::vector<std::string>{"address-not-in-kernel", "address-not-in-store",
                                                 "address-without-prefix", "daemon-absent"}));
    for (const auto &one : json["differences"]) {
        const bool waits = contains(one["reason"], "-not-in-");
        EXPECT_EQ(one["remedy"] == "", waits) << one << ": the remedy is to start the daemon";
    }
    const result_t nudged = run({"nudge"});
    EXPECT_EQ(nudged.status, 1);
    EXPECT_TRUE(
        contains(nudged.errors, "nothing was synchronised: tandrel: it is not running here"));
    EXPECT_EQ(run({"check", "--quiet"}).output, "");
}

TEST_F(Look, TheViewsDoNotAgreeWhileTheDaemonIsNotConnected) {
    rebuilds_allowed = true;
    store.set_address(1, "office", "2001:db8::5/64");
    start_daemon_and_wait();
    ASSERT_TRUE(becomes([&] { return in_step(); })) << run({"check"}).output;
    // A node with a bad name makes the daemon start over; it then pauses for ten seconds.
    store.write(kt::paths::interfaces + "/x/Label", "x");
    store.set_address(1, "lab", "2001:db8::6/64");
    ASSERT_TRUE(logged_part("Caught exception"));
    store.remove(kt::paths::interfaces + "/x");
    const result_t checked = run({"check"});
    EXPECT_EQ(checked.status, 1);
    EXPECT_TRUE(contains(checked.output, "tandrel: it is not connected to the settings store"))
        << checked.output;
    EXPECT_FALSE(contains(checked.output, "agree"));
    EXPECT_FALSE(contains(checked.output, "->")) << "it connects by itself";
    EXPECT_TRUE(becomes([&] { return in_step(); })) << run({"check"}).output;
}

TEST_F(Look, StatusShowsStoreDaemonAndLinks) {
    add_eth(1);
    add_eth(7, "lan");
    store.make_interface(1);
    const auto parsed = [this](int status) {
        const result_t result = run({"status", "--json"});
        EXPECT_EQ(result.status, status) << result.output;
        return nlohmann::json::parse(result.output);
    };
    const auto without_daemon = parsed(1);
    EXPECT_NE(without_daemon["daemon"]["state"], "working");
    EXPECT_TRUE(without_daemon["last_synchronisation"].is_null());
    start_daemon_and_wait();
    const auto json = parsed(0);
    EXPECT_LT(json["last_synchronisation"], 60);
    EXPECT_EQ(json["store"]["answers"], true);
    EXPECT_EQ(json["daemon"]["state"], "working");
    EXPECT_EQ(json["daemon"]["pid"], daemon->pid());
    std::vector<std::string> managed;
    for (const auto &one : json["links"]) {
        managed.push_back(one["link"].get<std::string>() + (one["managed"] ? " yes" : " no"));
    }
    EXPECT_EQ(managed, (std::vector<std::string>{"eth0 yes", "eth1 no", "lan7 no"}));
    const result_t shown = run({"status"});
    EXPECT_EQ(shown.status, 0);
    EXPECT_TRUE(contains(shown.output, "store:    answers\ntandrel:  connected to the store, "));
    EXPECT_TRUE(contains(shown.output, "link:     eth0, managed\n"));
    EXPECT_TRUE(contains(shown.output, "          -> tandrelctl interface add eth1\n"));
    EXPECT_EQ(json["links"][1]["remedy"], "tandrelctl interface add eth1");
    EXPECT_TRUE(contains(shown.output, "link:     lan7, not managed: its name does not begin"));
    EXPECT_TRUE(contains(shown.output, "s ago\nlast errors: ")) << shown.output;
    ASSERT_EQ(stop_daemon(), 0);
    store.disconnect();
    service.stop();
    const auto without_store = parsed(3);
    EXPECT_EQ(without_store["store"]["answers"], false);
    EXPECT_EQ(without_store["daemon"]["state"], "unknown");
    EXPECT_TRUE(without_store["links"][0]["managed"].is_null());
    const std::string unknown = run({"status"}).output;
    EXPECT_TRUE(contains(unknown, "link:     eth0, not known: the settings store does not answer"))
        << unknown;
    EXPECT_TRUE(contains(unknown, "keeper:   not known: the settings store does not answer\n"))
        << unknown;
    EXPECT_TRUE(contains(unknown, "last synchronisation: not known\n")) << unknown;
    const result_t checked = run({"check", "--json"});
    EXPECT_EQ(checked.status, 3);
    EXPECT_TRUE(nlohmann::json::parse(checked.output)["agree"].is_null());
}

TEST_F(Look, StatusNamesWhatKeepsTheDaemonFromReadingTheStore) {
    rebuilds_allowed = true;
    store.make_interface(1);
    start_daemon_and_wait();
    daemon->freeze(); // so that it is still connected
    store.write(kt::paths::interfaces + "/wan port/IPv6/Label", "x");
    const result_t shown = run({"status"});
    EXPECT_EQ(shown.status, 1);
    EXPECT_TRUE(contains(shown.output, "the name of the interface node 'wan port' is not a number"))
        << shown.output;
    EXPECT_TRUE(contains(shown.output, "-> tandrelctl interface del --node 'wan port' --force\n"));
    const auto json = nlohmann::json::parse(run({"status", "--json"}).output);
    EXPECT_EQ(json["obstacles"].at(0)["reason"], "bad-interface-node");
    EXPECT_EQ(json["daemon"]["state"], "working");
    daemon->thaw();
}

// Node 4 is that of eth3 to the tool, and that of lan3 to the daemon.
TEST_F(Look, ADaemonWithAnotherPrefixIsNamed) {
    add_eth(3, "lan");
    store.make_interface(4);
    start_daemon_and_wait({"-d", "-D", "4", "-i", "lan"});
    const std::string text =
        "it manages links whose names begin with 'lan', not 'eth'; use tandrelctl -i lan\n";
    const result_t shown = run({"status"});
    EXPECT_EQ(shown.status, 0);
    EXPECT_TRUE(contains(shown.output, "\n          " + text)) << shown.output;
    EXPECT_EQ(nlohmann::json::parse(run({"status", "--json"}).output)["daemon"]["prefix"], "lan");
    EXPECT_FALSE(contains(run({"-i", "lan", "status"}).output, text));
    EXPECT_TRUE(contains(run({"check"}).output, "tandrel: " + text));
    EXPECT_TRUE(becomes([&] { return run({"-i", "lan", "check", "-q"}).status == 0; }));
    const auto keeper = begin({"keep"});
    EXPECT_NE(keeper->output().wait_for_containing("tandrel: " + text.substr(0, 20)), 0U);
    for (const std::vector<std::string> &change :
         {std::vector<std::string>{"gateway", "set", "eth0", "fe80::1"},
          {"gateway", "clear", "eth0"},
          {"address", "add", "--dry-run", "eth0", "2001:db8::5/64"},
          {"import", "--from-kernel", "--write"}}) {
        const result_t refused = run(change);
        EXPECT_EQ(refused.status, 1);
        EXPECT_EQ(refused.errors, "tandrelctl: tandrel: " + text);
    }
    EXPECT_FALSE(store.gateway(1));
    done({"gateway", "set", "eth0", "fe80::1", "--force"});
    EXPECT_EQ(store.gateway(1), "fe80::1");
    EXPECT_EQ(run({"nudge"}).status, 0) << "it concerns every link";
}

TEST_F(Look, TwoLinksMayHaveGateways) {
    add_eth(1);
    store.set_gateway(1, "fe80::1");
    store.set_gateway(2, "fe80::2");
    start_daemon_and_wait();
    EXPECT_TRUE(becomes([&] { return in_step(); })) << run({"check"}).output;
    EXPECT_TRUE(contains(run({"show", "eth1"}).output, "= via fe80::2"));
}

TEST_F(Look, AMissingInterfacesNodeIsNamedAndTheRemedyMakesIt) {
    const auto is_missing = [this] {
        return contains(run({"check", "--json"}).output, "\"interfaces-absent\"");
    };
    EXPECT_FALSE(is_missing()) << "the service was started with --initial-node";
    store.remove(kt::paths::interfaces);
    EXPECT_TRUE(is_missing());
    const result_t checked = run({"check"});
    EXPECT_EQ(checked.status, 1);
    EXPECT_TRUE(contains(checked.output, "the store has no node '" + kt::paths::interfaces + "'"))
        << checked.output;
    const std::string remedy = "tav mknode '" + kt::paths::interfaces + "'";
    EXPECT_TRUE(contains(checked.output, "    -> tandrelctl interface add eth0\n"))
        << checked.output;
    kt::spawn_options_t options;
    options.environment["TAV_SOCKET"] = service.socket();
    kt::Process shell(
        sandbox, {"/bin/sh", "-c", "tav() { '" + kt::program("TAV") + "' \"$@\"; }; " + remedy},
        options);
    EXPECT_EQ(shell.wait_exit(), 0) << shell.errors().tail(5);
    EXPECT_FALSE(is_missing());
}

TEST_F(Look, AZombieIsNotARunningDaemon) {
    if (!sees_all_processes()) {
        GTEST_SKIP() << sees_not_all;
    }
    store.make_interface(1);
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_NAME, "tandrel");
        _exit(0);
    }
    siginfo_t ended{};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT), 0);
    EXPECT_TRUE(contains(run({"check"}).output, "tandrel: it is not running here"));
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
}

TEST_F(Look, LinksThatAreNotSynchronisedAreNamedWhenAskedFor) {
    add_eth(7, "lan");
    store.make_interface(1);
    start_daemon_and_wait();
    ASSERT_TRUE(becomes([&] { return in_step(); })) << run({"check"}).output;
    EXPECT_FALSE(contains(run({"show"}).output, "lan7"));
    EXPECT_TRUE(contains(run({"show", "--all"}).output, "lan7, no interface node, up"));
    const result_t named = run({"check", "lan7"});
    EXPECT_EQ(named.status, 1);
    EXPECT_EQ(named.output.find("lan7: note: not synchronised: its name does not begin with 'eth'"),
              0U)
        << named.output;
    EXPECT_EQ(run({"show", "eth9"}).status, 1);
}

TEST_F(Look, AnUnusedLinkIsCheckedOnlyWhenNamed) {
    device.add_veth("eth7", "peer7", sandbox.neighbour()); // down: without addresses
    store.make_interface(1);
    store.make_interface(6);
    start_daemon_and_wait();
    ASSERT_TRUE(becomes([&] { return in_step(); })) << run({"check"}).output;
    const result_t without_node = run({"check", "eth7"});
    EXPECT_EQ(without_node.status, 1);
    EXPECT_TRUE(
        contains(without_node.output,
                 "eth7: the link is not synchronised, because the store has no interface node 8"));
    const result_t without_link = run({"check", "eth5"});
    EXPECT_EQ(without_link.status, 1);
    EXPECT_TRUE(contains(without_link.output, "eth5: the kernel has no link eth5"));
}

TEST_F(Look, AnAddressThatAnotherHostHasIsSeen) {
    kt::write_file("/proc/sys/net/ipv6/conf/eth0/accept_dad", "1");
    neighbour.add_address("peer0", "2001:db8::5/64");
    // The neighbour does not defend the address while it checks the address itself.
    ASSERT_TRUE(becomes([&] {
        for (const auto &one : neighbour.addresses("peer0")) {
            if (one.text == "2001:db8::5/64") {
                return (one.flags & IFA_F_TENTATIVE) == 0;
            }
        }
        return false;
    }));
    store.set_address(1, "x", "2001:db8::5/64");
    start_daemon_and_wait();
    const result_t waited = run({"address", "replace", "eth0", "2001:db8::5/64", "--wait=5"});
    EXPECT_TRUE(becomes([&] {
        return contains(run({"check"}).output,
                        "eth0: 2001:db8::5/64: duplicate address detection failed");
    })) << run({"check"}).output;
    EXPECT_TRUE(contains(run({"show"}).output, "tentative dadfailed"));
    EXPECT_EQ(waited.status, 4);
}

TEST_F(Look, AnUnreachableStoreHasItsOwnExitStatus) {
    service.stop();
    EXPECT_TRUE(contains(run({"show"}).output, "- " + device.link_local("eth0")))
        << "the kernel's half is shown";
    const auto json = nlohmann::json::parse(run({"show", "--json"}).output);
    EXPECT_EQ(json.at(0)["link"], "eth0");
    EXPECT_TRUE(json[0]["stored"].is_null());
    EXPECT_EQ(json[0]["addresses"].at(0)["mark"], "half-known");
    EXPECT_EQ(json[0]["addresses"][0]["kernel"]["scope"], "link");
    for (const std::string command : {"show", "check", "nudge"}) {
        const result_t result = run({command});
        EXPECT_EQ(result.status, 3);
        EXPECT_TRUE(contains(result.errors, "the settings store cannot be reached"))
            << result.errors;
    }
    service.start();
}

TEST_F(Look, AUserWithoutRightsIsToldSo) {
    if (!kt::Sandbox::is_real_root()) {
        GTEST_SKIP() << "only root can run a command as another user";
    }
    const auto errors_of = [this](std::vector<std::string> command, int status = 3) {
        const std::vector<std::string> user{"/usr/bin/setpriv", "--reuid=65534", "--regid=65534",
                                            "--clear-groups", TANDRELCTL};
        command.insert(command.begin(), user.begin(), user.end());
        kt::spawn_options_t options;
        options.environment["TAV_SOCKET"] = service.socket();
        kt::Process process(sandbox, command, options);
        EXPECT_EQ(process.wait_exit(), status);
        process.errors().wait_finished();
        return process.errors().tail(5);
    };
    std::string errors = errors_of({"check"});
    EXPECT_TRUE(contains(errors, "this user may not use the settings store")) << errors;
    EXPECT_FALSE(contains(errors, "is its service running")) << errors;
    errors = errors_of({"wait", "--online", "--timeout=0"});
    EXPECT_TRUE(contains(errors, "this user may not use the settings store")) << errors;

    // The same if the service refuses the user, not the socket's permissions.
    const auto open_to_all = [this] {
        ASSERT_EQ(chmod(service.socket().c_str(), 0666), 0);
        ASSERT_EQ(chmod(sandbox.directory().c_str(), 0755), 0);
    };
    open_to_all();
    errors = errors_of({"check"});
    EXPECT_TRUE(contains(errors, "this user may not use the store\n")) << errors;
    EXPECT_TRUE(contains(errors, "this user may not use the settings store")) << errors;
    EXPECT_FALSE(contains(errors, "is its service running")) << errors;

    store.disconnect();
    service.stop();
    service.start("", {"--read-group", "nogroup"});
    open_to_all();
    store.make_interface(1);
    errors = errors_of({"address", "add", "eth0", "2001:db8::5/64"}, 1);
    EXPECT_TRUE(contains(errors, "permission denied: this user may read the settings, but not "
                                 "change them"))
        << errors;
}

TEST_F(Look, AWrongCommandLineHasItsOwnExitStatus) {
    for (const std::vector<std::string> &line : {std::vector<std::string>{},
                                                 {"frobnicate"},
                                                 {"address", "add", "eth0"},
                                                 {"show", "--frobnicate"},
                                                 {"address", "add", "eth0", "2001:db8::5"}}) {
        const result_t result = run(line);
        EXPECT_EQ(result.status, 2) << result.output;
        EXPECT_NE(result.errors, "");
    }
    const result_t help = run({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_TRUE(contains(help.output, "Examples:"));
}

TEST_F(Look, WatchPrintsEveryChangeOfEitherSideAndExitsCleanly) {
    store.make_interface(1);
    start_daemon_and_wait();
    const auto watch = begin({"watch"});
    kt::LineLog &lines = watch->output();
    ASSERT_NE(lines.wait_for_containing(" + eth0 kernel: link (up"), 0U);
    ASSERT_NE(lines.wait_for_containing(" + store (answers)"), 0U);
    device.add_address("eth0", "2001:db8::9/64");
    EXPECT_NE(lines.wait_for_containing(" + eth0 kernel: 2001:db8::9/64"), 0U);
    EXPECT_NE(lines.wait_for_containing("(2001:db8::9/64 Automatic)"), 0U);
    store.set_gateway(1, "fe80::1");
    EXPECT_NE(lines.wait_for_containing(" + eth0 store: gateway (fe80::1)"), 0U);
    EXPECT_NE(lines.wait_for_containing(" + eth0 kernel: default route via fe80::1"), 0U);
    device.delete_address("eth0", "2001:db8::9/64");
    EXPECT_NE(lines.wait_for_containing(" - eth0 kernel: 2001:db8::9/64"), 0U);
    watch->signal(SIGINT);
    EXPECT_EQ(watch->wait_exit(), 0);
}

TEST_F(Look, WatchNamesWhoChangedTheStore) {
    store.make_interface(1);
    start_daemon_and_wait();
    const auto watch = begin({"watch"});
    ASSERT_GT(watch->output().wait_for_containing("store: address node 1"), 0U);
    done({"address", "add", "eth0", "2001:db8::5/64", "--node", "office"});
    const std::string added = "+ eth0 store: address node office (2001:db8::5/64 Static) by ";
    EXPECT_GT(watch->output().wait_for_containing(added), 0U);
    EXPECT_GT(watch->output().wait_for_containing(" (tandrelctl)"), 0U) << watch->output().tail(9);
    store.set_address(1, "office", "2001:db8::6/64");
    EXPECT_GT(watch->output().wait_for_containing("2001:db8::6/64 Static) by "), 0U);
    EXPECT_GT(watch->output().wait_for_containing(" (process " + std::to_string(getpid()) + ")"),
              0U)
        << watch->output().tail(9);
    device.add_address("eth0", "2001:db8:1::7/64");
    EXPECT_GT(watch->output().wait_for_containing("(2001:db8:1::7/64 Automatic) by tandrel"), 0U)
        << watch->output().tail(9);
    EXPECT_EQ(watch->output().count_containing("kernel: 2001:db8:1::7/64 by"), 0U);
}

TEST_F(Look, WatchOutlivesTheStore) {
    rebuilds_allowed = true;
    store.set_address(1, "x", "2001:db8::5/64");
    const auto watch = begin({"watch"});
    kt::LineLog &lines = watch->output();
    ASSERT_NE(lines.wait_for_containing(" + store (answers)"), 0U);
    store.disconnect();
    service.crash();
    EXPECT_NE(lines.wait_for_containing(" ~ store (answers -> does not answer)"), 0U);
    service.start();
    EXPECT_NE(lines.wait_for_containing(" ~ store (does not answer -> answers)"), 0U);
    // The store was in memory and is empty now; the watch finds this change.
    EXPECT_NE(lines.wait_for_containing(" - eth0 store: address node x"), 0U);
    watch->signal(SIGTERM);
    EXPECT_EQ(watch->wait_exit(), 0);
}

TEST_F(Look, WatchSaysThatALinkIsNotThereAndEndsIfNobodyCanRead) {
    const auto watch = begin({"watch", "eth8"});
    EXPECT_NE(watch->errors().wait_for_containing(
                  "tandrelctl: neither the kernel nor the store has a link eth8; waiting for it"),
              0U);
    watch->signal(SIGINT);
    EXPECT_EQ(watch->wait_exit(), 0);
    kt::Process full(sandbox, {"/bin/sh", "-c", "exec '" TANDRELCTL "' watch >/dev/full"}, {});
    EXPECT_EQ(full.wait_exit(), 3);
}

TEST_F(Look, WatchInJsonPrintsOneStatePerLine) {
    store.make_interface(1);
    const auto watch = begin({"watch", "--json", "eth0"});
    ASSERT_TRUE(becomes([&] { return watch->output().size() >= 1; }));
    device.add_address("eth0", "2001:db8::9/64");
    ASSERT_NE(watch->output().wait_for_containing("2001:db8::9/64"), 0U);
    for (const auto &line : watch->output().lines()) {
        const auto json = nlohmann::json::parse(line.text);
        EXPECT_EQ(json["store"], true);
        EXPECT_EQ(json["interfaces"].at(0)["link"], "eth0");
    }
    watch->signal(SIGINT);
    EXPECT_EQ(watch->wait_exit(), 0);
}

class LookOnATerminal : protected Terminal, public CtlTest {
protected:
    LookOnATerminal() : Terminal(20, 60) {}
};

TEST_F(LookOnATerminal, ARemovalReportsWhatBothSidesHave) {
    store.set_address(1, "x", "2001:db8::5/64");
    store.set_gateway(1, "fe80::1");
    start_daemon_and_wait();
    ASSERT_TRUE(becomes([&] { return in_step(); }));
    start(service.socket(), {"gateway", "clear", "eth0"});
    EXPECT_EQ(finish(), 0) << seen;
    EXPECT_NE(seen.find("eth0: neither the kernel nor the store has a default gateway"),
              std::string::npos)
        << seen;
    start(service.socket(), {"address", "del", "eth0", "2001:db8::5"});
    EXPECT_EQ(finish(), 0) << seen;
    EXPECT_NE(seen.find("eth0: neither the kernel nor the store has 2001:db8::5"),
              std::string::npos)
        << seen;
}

TEST_F(LookOnATerminal, WatchRedrawsTheTableWithALogBelow) {
    store.set_address(1, "x", "2001:db8::5/64");
    start(service.socket(), {"watch"});
    ASSERT_TRUE(shows("\x1b[?1049h")) << "takes the whole screen";
    ASSERT_TRUE(shows("eth0, interface node 1, up"));
    ASSERT_TRUE(shows("\x1b[33mS 2001:db8::5/64"));
    device.add_address("eth0", "2001:db8::5/64");
    EXPECT_TRUE(shows("\x1b[H")) << "drawn again from the top";
    EXPECT_TRUE(shows("\x1b[32m= 2001:db8::5/64")) << seen;
    EXPECT_TRUE(shows("+ eth0 kernel: 2001:db8::5/64")) << seen;
    EXPECT_EQ(interrupt(), 0);
    EXPECT_NE(seen.rfind("\x1b[?25h\x1b[?1049l"), std::string::npos) << "gives the screen back";
}

TEST_F(LookOnATerminal, WatchScrollsFitsTheWidthAndQuits) {
    store.make_interface(1);
    for (int i = 10; i < 40; ++i) {
        store.set_address(1, "n" + std::to_string(i),
                          "2001:db8:1111:2222:3333:4444:5555:66" + std::to_string(i) + "/64");
    }
    start(service.socket(), {"--color=never", "watch"});
    ASSERT_TRUE(shows("  ENTRY ")) << "60 columns are too narrow for the table";
    ASSERT_TRUE(shows("5555:6610/64  Static  n10"));
    ASSERT_TRUE(shows("q quits; arrow and page keys scroll"));
    EXPECT_EQ(seen.find("n39"), std::string::npos) << "that is beyond the screen";
    press("\x1b[B\x1b[Bj");
    EXPECT_TRUE(shows("\x1b[HS 2001:db8:1111:2222:3333:4444:5555:6611/64")) << seen;
    press("\x1b[6~\x1b[5~"); // a page on, and back as far as possible
    EXPECT_TRUE(shows("\x1b[Heth0, interface node 1"));
    press("G");
    EXPECT_TRUE(shows("n39"));
    press("g");
    EXPECT_TRUE(shows("\x1b[Heth0, interface node 1"));
    resize(60, 200);
    EXPECT_TRUE(shows("  KERNEL"));
    EXPECT_TRUE(shows("n39"));
    press("q");
    EXPECT_EQ(finish(), 0);
    EXPECT_NE(seen.rfind("\x1b[?25h\x1b[?1049l"), std::string::npos);
}

} // namespace
