// Changes through tandrelctl, and their effect in the kernel.
#include <regex>

#include <linux/if_addr.h>

#include "ctl_test.h"

namespace {

using Change = CtlTest;

TEST_F(Change, AnAddressIsInTheKernelWhenAddReturns) {
    start_daemon_and_wait();
    done({"address", "add", "eth0", "2001:db8::5/64", "--node", "office", "--wait=60"});
    EXPECT_TRUE(device.has_address("eth0", "2001:db8::5/64"));
    EXPECT_TRUE(store.has_address(1, "2001:db8::5/64", "Static"));
    EXPECT_EQ(store.node_of(1, "2001:db8::5/64"), "office");
    done({"address", "replace", "eth0", "2001:db8::5/48", "--wait=60"});
    EXPECT_TRUE(device.has_address("eth0", "2001:db8::5/48"));
    EXPECT_FALSE(device.has_address("eth0", "2001:db8::5/64"));
    EXPECT_EQ(store.node_of(1, "2001:db8::5/48"), "office");
    done({"address", "del", "eth0", "2001:db8::5", "--wait=60"});
    EXPECT_TRUE(neither_has(1, "2001:db8::5/48"));
}

TEST_F(Change, AGatewayIsInTheKernelWhenSetReturns) {
    store.make_interface(1);
    start_daemon_and_wait();
    done({"gateway", "set", "eth0", "fe80::1", "--wait=60"});
    EXPECT_EQ(device.static_gateways("eth0"), std::vector<std::string>{"fe80::1"});
    done({"gateway", "set", "eth0", "fe80::2", "--wait=60"});
    EXPECT_EQ(device.static_gateways("eth0"), std::vector<std::string>{"fe80::2"});
    done({"gateway", "clear", "eth0", "--wait=60"});
    EXPECT_TRUE(device.static_gateways("eth0").empty());
    EXPECT_FALSE(store.gateway(1));
}

TEST_F(Change, AMistypedGatewayLeavesTheWorkingOne) {
    store.set_gateway(1, "fe80::1");
    start_daemon_and_wait();
    ASSERT_TRUE(becomes([&] { return in_step(); }));
    const result_t refused = run({"gateway", "set", "eth0", "2001:db8:ffff::1"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_TRUE(contains(refused.errors, "no network of eth0 contains '2001:db8:ffff::1'"));
    ASSERT_TRUE(settle());
    EXPECT_EQ(device.static_gateways("eth0"), std::vector<std::string>{"fe80::1"});
    EXPECT_EQ(store.gateway(1), "fe80::1");
}

TEST_F(Change, AWrongGatewayIsRevertedThoughTheToolIsKilled) {
    store.set_gateway(1, "fe80::1");
    start_daemon_and_wait();
    ASSERT_TRUE(becomes([&] { return in_step(); }));
    // It waits for the kernel, and is killed meanwhile.
    const auto tool = begin({"gateway", "set", "eth0", "fe80::bad", "--confirm", "3", "--wait=60"});
    ASSERT_TRUE(becomes(
        [&] { return device.static_gateways("eth0") == std::vector<std::string>{"fe80::bad"}; }));
    tool->signal(SIGKILL);
    EXPECT_TRUE(becomes(
        [&] { return device.static_gateways("eth0") == std::vector<std::string>{"fe80::1"}; }));
    EXPECT_EQ(store.gateway(1), "fe80::1");
    ASSERT_TRUE(settle());
    EXPECT_TRUE(in_step());
}

TEST_F(Change, AConfirmedChangeStaysAndIsListedBefore) {
    store.set_gateway(1, "fe80::1");
    start_daemon_and_wait();
    const result_t set = run({"gateway", "set", "eth0", "fe80::2", "--confirm", "100"});
    const std::string number = set.output.substr(7, set.output.find(" will be reverted") - 7);
    EXPECT_EQ(set.output,
              "change " + number +
                  " will be reverted in 100 s unless you confirm it: tandrelctl confirm " + number +
                  "\n");
    EXPECT_TRUE(contains(run({"status"}).output,
                         "unconfirmed: change " + number + " by tandrelctl, process "));
    EXPECT_TRUE(becomes([&] { return in_step(); }));
    const std::string noted = run({"check"}).output;
    EXPECT_TRUE(std::regex_search(
        noted, std::regex("store: note: change " + number +
                          " by tandrelctl, process \\d+, user \\d+ is unconfirmed, and will be "
                          "reverted in \\d\\d s\n    -> tandrelctl confirm " +
                          number + "\n")))
        << noted;
    const result_t second = run({"gateway", "set", "eth0", "fe80::3", "--confirm", "100"});
    EXPECT_EQ(second.status, 1);
    EXPECT_TRUE(contains(second.errors, "change " + number + " by tandrelctl, process "))
        << second.errors;
    EXPECT_TRUE(contains(second.errors, "unless it is confirmed: tandrelctl confirm " + number))
        << second.errors;
    EXPECT_EQ(run({"confirm"}).output, "change " + number + " is confirmed\n");
    EXPECT_FALSE(contains(run({"check"}).output, "unconfirmed"));
    EXPECT_EQ(store.gateway(1), "fe80::2");
    EXPECT_EQ(run({"confirm", number}).status, 1);
}

TEST_F(Change, AWaitEndsWithTheReversion) {
    store.make_interface(1);
    start_daemon_and_wait();
    const auto start = kt::clock_type::now();
    const result_t reverted = run(
        {"gateway", "set", "eth0", "2001:db8:dead::1", "--force", "--confirm", "1", "--wait=3600"});
    EXPECT_LT(kt::clock_type::now() - start, std::chrono::seconds(3000)) << "it need not wait";
    EXPECT_EQ(reverted.status, 1);
    EXPECT_EQ(reverted.errors,
              "tandrelctl: the change was reverted, because it was not confirmed in time\n");
}

TEST_F(Change, ALaterChangeOfWhatWaitsIsWarnedOf) {
    store.set_gateway(1, "fe80::1");
    start_daemon_and_wait();
    ASSERT_EQ(run({"gateway", "set", "eth0", "fe80::2", "--confirm", "100"}).status, 0);
    done({"address", "add", "eth0", "2001:db8::5/64"});
    const result_t corrected = run({"gateway", "set", "eth0", "fe80::3"});
    EXPECT_EQ(corrected.status, 0);
    EXPECT_TRUE(contains(corrected.errors, "tandrelctl: stored, but change ")) << corrected.errors;
    EXPECT_TRUE(
        contains(corrected.errors, " of the same settings is waiting for confirmation; in "));
    EXPECT_TRUE(contains(corrected.errors, " s both will be reverted unless it is confirmed: "));
    EXPECT_EQ(run({"confirm"}).status, 0);
    done({"gateway", "set", "eth0", "fe80::4"});
}

// What the tool does to wake the daemon would be the last change otherwise.
TEST_F(Change, AnUndoIsOfTheLastSettingNotOfTheNudgeAfterIt) {
    start_daemon_and_wait();
    store.set_gateway(7, "fe80::7");
    done({"interface", "add", "eth0"});
    EXPECT_TRUE(becomes([&] { return !store.addresses(1).empty(); })) << "the daemon noticed it";
    done({"gateway", "set", "eth0", "fe80::1", "--wait=60"});
    const std::size_t before = log().size();
    done({"nudge"});
    EXPECT_TRUE(log().wait_for_containing("Synchronizing", before)) << "the daemon noticed";
    EXPECT_EQ(tav({"undo"}), 0);
    EXPECT_FALSE(store.gateway(1));
    EXPECT_FALSE(contains(store.dump(), "nudge")) << store.dump();
}

TEST_F(Change, AnUndoOfANewInterfaceNodeIsNotOfItsNudge) {
    done({"interface", "add", "eth0", "--force"});
    EXPECT_EQ(tav({"undo"}), 0);
    EXPECT_TRUE(store.dump().empty()) << store.dump();
}

// The daemon's path of it would have a negative number.
TEST_F(Change, ANudgeUsesNoNodeWithAHugeNumber) {
    ASSERT_EQ(tav({"mknode", kt::paths::interfaces + "/3000000000/IPv6"}), 0);
    EXPECT_EQ(run({"nudge"}).status, 1);
    ASSERT_EQ(tav({"mknode", kt::paths::interfaces + "/9/IPv6"}), 0);
    start_daemon_and_wait();
    done({"nudge"});
}

// The daemon may have given its number to an address that the kernel assigned itself.
TEST_F(Change, AnAddressThatIsRevertedReplacesWhatTookItsName) {
    store.make_interface(1);
    start_daemon_and_wait();
    done({"address", "add", "eth0", "2001:db8::5/64", "--node", "7", "--wait=60"});
    const result_t removed = run({"address", "del", "eth0", "2001:db8::5", "--confirm", "4"});
    EXPECT_EQ(removed.status, 0) << removed.errors;
    // As the daemon would, by a client that is no service but the same user.
    store.set_address(1, "7", "2001:db8:1::9/64", "Automatic");
    EXPECT_TRUE(becomes([&] { return store.has_address(1, "2001:db8::5/64", "Static"); }));
    EXPECT_TRUE(becomes([&] { return device.has_address("eth0", "2001:db8::5/64"); }));
    EXPECT_EQ(store.node_of(1, "2001:db8::5/64"), "7");
}

// The daemon stores the gateway again, because the kernel had the advertised route instead.
TEST_F(Change, ARemovalThatIsUndoneIsNoSuccess) {
    store.make_interface(1);
    const std::string router = [&] {
        const std::string text = neighbour.link_local("peer0");
        return text.substr(0, text.find('/'));
    }();
    start_daemon_and_wait();
    {
        const kt::Advertiser advertiser(sandbox.neighbour(), "peer0", {}, 1800);
        ASSERT_TRUE(becomes([&] { return contains(run({"show"}).output, "via " + router); }));
    }
    EXPECT_EQ(run({"gateway", "set", "eth0", router}).status, 1);
    EXPECT_EQ(run({"gateway", "set", "eth0", router, "--force"}).status, 0);
    ASSERT_TRUE(settle());
    const result_t cleared = run({"gateway", "clear", "eth0", "--wait=2"});
    EXPECT_EQ(cleared.status, 4);
    EXPECT_TRUE(contains(cleared.errors, "eth0: the store has the gateway " + router))
        << cleared.errors;
}

TEST_F(Change, WaitEndsWhenTheStoredSettingsCanBeUsed) {
    EXPECT_EQ(run({"wait"}).status, 2);
    store.make_interface(1);
    done({"wait", "--online"}); // there is nothing to wait for
    store.set_address(1, "x", "2001:db8::5/64");
    store.set_gateway(1, "2001:db8::1");
    store.set_address(3, "y", "2001:db8:3::5/64"); // whose link does not exist
    const result_t early = run({"wait", "eth0", "--timeout", "0.1"});
    EXPECT_EQ(early.status, 4);
    EXPECT_TRUE(contains(early.errors, "eth0: 2001:db8::5/64\neth0: gateway 2001:db8::1\n"))
        << early.errors;
    EXPECT_TRUE(!sees_all_processes() || contains(early.errors, "tandrel: it is not running here"));
    const auto link = begin({"wait", "eth0"});
    const auto online = begin({"wait", "--online"});
    kt::write_file("/proc/sys/net/ipv6/conf/eth0/accept_dad", "1");
    start_daemon_and_wait();
    EXPECT_EQ(link->wait_exit(), 0);
    EXPECT_EQ(online->wait_exit(), 0);
    for (const auto &one : device.addresses("eth0")) {
        EXPECT_EQ(one.flags & IFA_F_TENTATIVE, 0U) << one.text;
    }
    EXPECT_EQ(device.static_gateways("eth0"), std::vector<std::string>{"2001:db8::1"});
    EXPECT_EQ(run({"wait", "eth2", "--timeout=0"}).status, 4);
}

TEST_F(Change, WaitOutlastsAStoreThatComesLater) {
    store.disconnect();
    service.stop();
    EXPECT_EQ(run({"wait", "--online", "--timeout=0"}).status, 3);
    const auto online = begin({"wait", "--online"});
    service.start();
    EXPECT_EQ(online->wait_exit(), 0);
}

TEST_F(Change, AFailedWaitSaysWhy) {
    store.make_interface(1);
    start_daemon_and_wait();
    const result_t refused =
        run({"gateway", "set", "eth0", "2001:db8:dead::1", "--wait=1", "--force"});
    EXPECT_EQ(refused.status, 4);
    EXPECT_TRUE(
        contains(refused.errors, "no network of eth0 contains it, so the kernel refuses it"))
        << refused.errors;
    EXPECT_EQ(store.gateway(1), "2001:db8:dead::1") << "it is still stored";

    const auto start = kt::clock_type::now();
    const result_t absent =
        run({"address", "add", "eth5", "2001:db8::5/64", "--wait=3600", "--force"});
    EXPECT_EQ(absent.status, 4);
    EXPECT_TRUE(contains(absent.errors, "the kernel has no link eth5")) << absent.errors;
    EXPECT_LT(kt::clock_type::now() - start, std::chrono::seconds(3000)) << "it need not wait";

    ASSERT_EQ(stop_daemon(), 0);
    const result_t alone = run({"address", "add", "eth0", "2001:db8::6/64", "--wait=1"});
    EXPECT_EQ(alone.status, 4);
    EXPECT_TRUE(!sees_all_processes() || contains(alone.errors, "tandrel: it is not running here"))
        << alone.errors;
    EXPECT_FALSE(contains(alone.errors, "-> tandrelctl nudge")) << "which would fail";
    const result_t at_once = run({"address", "add", "eth0", "2001:db8::7/64"});
    EXPECT_EQ(at_once.status, 0);
    EXPECT_TRUE(contains(
        at_once.errors,
        "tandrelctl: the store was changed, but tandrel does not act on the change: it is not "))
        << at_once.errors;
}

TEST_F(Change, ALongWaitShowsItsProgress) {
    store.make_interface(1);
    start_daemon_and_wait();
    const auto process =
        begin({"gateway", "set", "eth0", "2001:db8:dead::1", "--wait=16", "--force"});
    EXPECT_EQ(process->wait_exit(std::chrono::seconds(120)), 4);
    process->errors().wait_finished();
    const std::string first = process->errors().lines().front().text;
    EXPECT_EQ(first.compare(0, 35, "tandrelctl: waiting for the kernel,"), 0) << first;
    EXPECT_TRUE(contains(first, " of 16 s")) << first;
}

TEST_F(Change, ANewInterfaceNodeIsSynchronisedAtOnce) {
    start_daemon_and_wait();
    EXPECT_TRUE(contains(run({"interface", "list"}).output, "1\teth0\tno node in the store\n"));
    EXPECT_TRUE(
        contains(run({"check"}).output,
                 "eth0: the link is not synchronised, because the store has no interface node 1"));
    done({"interface", "add", "eth0"});
    EXPECT_TRUE(
        becomes([&] { return store.has_address(1, device.link_local("eth0"), "Link-Local"); }));
    EXPECT_TRUE(becomes([&] { return in_step(); })) << run({"check"}).output;
    EXPECT_EQ(run({"interface", "list"}).output, "1\teth0\tsynchronised\n");
    const result_t deleted = run({"interface", "del", "eth0"});
    EXPECT_EQ(deleted.status, 0) << deleted.errors;
    EXPECT_TRUE(contains(deleted.errors, "eth0 is no longer synchronised"));
    EXPECT_TRUE(store.list(kt::paths::interfaces).empty() || !in_step());
}

TEST_F(Change, ANewInterfaceNodeIsRevertedWithWhatIsBelow) {
    start_daemon_and_wait();
    const result_t first = run({"interface", "add", "eth0", "--confirm", "3"});
    EXPECT_EQ(first.errors, "") << "of what wakes the daemon, too";
    EXPECT_TRUE(contains(first.output, " will be reverted in 3 s unless you confirm it: "))
        << first.output << first.errors;
    EXPECT_TRUE(becomes([&] { return !store.addresses(1).empty(); })) << "it is synchronised";
    EXPECT_TRUE(becomes([&] { return store.dump().empty(); })) << store.dump();
    EXPECT_EQ(run({"interface", "add", "eth0", "--confirm", "60"}).status, 0);
    EXPECT_EQ(run({"confirm"}).status, 0);
    EXPECT_TRUE(becomes([&] { return in_step(); })) << run({"check"}).output;
}

TEST_F(Change, TheKernelsConfigurationIsImported) {
    device.add_address("eth0", "2001:db8::5/64");
    kt::address_options_t passing;
    passing.valid_seconds = 3600;
    device.add_address("eth0", "2001:db8::6/64", passing);
    device.add_route({"::/0", "fe80::1", "eth0", 3}); // as "ip route add" makes it
    const result_t shown = run({"import", "--from-kernel"});
    EXPECT_EQ(shown.status, 0);
    EXPECT_EQ(shown.output, "eth0  2001:db8::5/64  new\neth0  gateway fe80::1  new\n"
                            "    -> then, to let tandrel manage the route: tandrelctl nudge && "
                            "ip -6 route del default via fe80::1 dev eth0 proto boot metric 1024 "
                            "&& tandrelctl nudge\n"
                            "nothing was written; use --write to store these settings\n");
    EXPECT_EQ(store.addresses(1).size(), 0U);
    EXPECT_EQ(run({"import"}).status, 2);
    store.write(kt::paths::interfaces + "/01/IPv6/Label", "x");
    EXPECT_EQ(run({"import", "--from-kernel"}).errors,
              "tandrelctl: eth0 has an interface node that tandrel does not write to; first run: "
              "tandrelctl interface merge eth0\n");
    store.remove(kt::paths::interfaces + "/01");
    EXPECT_EQ(run({"import", "--from-kernel", "--write"}).status, 0);
    EXPECT_TRUE(store.has_address(1, "2001:db8::5/64", "Static"));
    EXPECT_EQ(store.gateway(1), "fe80::1");
    EXPECT_EQ(store.addresses(1).size(), 1U);
    EXPECT_EQ(run({"import", "--from-kernel"}).output,
              "eth0  2001:db8::5/64  already stored\neth0  gateway fe80::1  already stored\n"
              "nothing to store\n");
}

// The daemon ran first, and stored the address as one that the kernel assigned itself.
TEST_F(Change, AnImportMakesStaticWhatTheDaemonRecordedAsAutomatic) {
    device.add_address("eth0", "2001:db8::5/64");
    store.make_interface(1);
    start_daemon_and_wait();
    ASSERT_TRUE(becomes([&] { return store.has_address(1, "2001:db8::5/64", "Automatic"); }));
    const std::string node = store.node_of(1, "2001:db8::5/64");
    const result_t written = run({"import", "--from-kernel", "--write"});
    EXPECT_EQ(written.output,
              "eth0  2001:db8::5/64  stored as 2001:db8::5/64 Automatic; becomes Static\n"
              "stored\n");
    ASSERT_TRUE(settle());
    EXPECT_TRUE(store.has_address(1, "2001:db8::5/64", "Static"));
    EXPECT_EQ(store.node_of(1, "2001:db8::5/64"), node);
    EXPECT_TRUE(device.has_address("eth0", "2001:db8::5/64"));
}

} // namespace
