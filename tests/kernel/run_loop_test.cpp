// Failures, the pause of ten seconds, and the recovery from each.

#include <atomic>
#include <sstream>
#include <thread>

#include "harness/relay.h"
#include "harness/world.h"

namespace {

const std::string link_request = "Info: void CSync::discover(): requesting link state";

// The pause, minus the possible delay in reading the two lines.
constexpr std::chrono::milliseconds least_pause{9500};

class RunLoopTest : public kt::KeptStoreTest {
protected:
    void SetUp() override {
        rebuilds_allowed = true;
        add_eth(0);
    }

    // Time between two lines, each the first one from `from` on.
    std::chrono::milliseconds between(const std::string &first, const std::string &second) {
        const auto lines = log().lines();
        const long begin = log().find(first);
        if (begin < 0) {
            return std::chrono::milliseconds(-1);
        }
        const long end = log().find(second, static_cast<std::size_t>(begin) + 1);
        if (end < 0) {
            return std::chrono::milliseconds(-1);
        }
        return std::chrono::duration_cast<std::chrono::milliseconds>(
            lines[static_cast<std::size_t>(end)].at - lines[static_cast<std::size_t>(begin)].at);
    }
};

TEST_F(RunLoopTest, AStoreThatIsDownAtTheStartIsWaitedFor) {
    start_daemon();
    const std::string sleeping = "Error: Can't connect to TAV, sleeping";
    const std::string library = "cannot connect to the settings service at " + service.socket();
    ASSERT_TRUE(logged(sleeping));
    service.start();
    store.set_address(1, "1", "2001:db8::5/64");
    EXPECT_TRUE(logged(kt::normal_operation));
    EXPECT_TRUE(becomes([&] { return device.has_address("eth0", "2001:db8::5/64"); }));
    EXPECT_GE(between(sleeping, "Info: void CSync::discover(): requesting link state"),
              least_pause);
    EXPECT_EQ(log().count(sleeping), 1U);
    EXPECT_EQ(log().count_containing(library), 1U);
    EXPECT_EQ(log().count_containing("Caught exception"), 0U);
    expect_working();
}

TEST_F(RunLoopTest, RetriesAreSilent) {
    start_daemon({"-d", "-D", "5"}, kt::preloaded({{"KT_PAUSE_MS", "20"}}));
    ASSERT_TRUE(logged("Error: Can't connect to TAV, sleeping"));
    const std::size_t lines = log().size();
    sleep(1); // about forty attempts
    EXPECT_EQ(log().size(), lines) << log().tail(5);
}

TEST_F(RunLoopTest, AStoreThatIsKilledAndComesBackIsFoundAgain) {
    service.start();
    store.set_address(1, "1", "2001:db8::5/64");
    start_daemon_and_wait();
    store.disconnect();
    service.crash();
    ASSERT_TRUE(logged("Error: Caught exception"));
    EXPECT_TRUE(logged_part("Error: connection to the settings service lost: "));
    ASSERT_TRUE(logged("Error: Can't connect to TAV, sleeping"));
    EXPECT_GE(between("Error: Caught exception", "Error: Can't connect to TAV, sleeping"),
              least_pause);
    EXPECT_TRUE(device.has_address("eth0", "2001:db8::5/64")) << "the kernel keeps what it has";
    device.add_address("eth0", "2001:db8::7/64");
    service.start();
    store.set_address(1, "2", "2001:db8::6/64");
    const std::size_t from = log().wait_for("Error: Can't connect to TAV, sleeping");
    ASSERT_TRUE(logged(kt::normal_operation, from));
    EXPECT_TRUE(becomes([&] {
        return device.has_address("eth0", "2001:db8::6/64") &&
               store.has_address(1, "2001:db8::7/64", "Automatic") &&
               store.has_address(1, "2001:db8::5/64", "Static");
    }));
    expect_working();
}

TEST_F(RunLoopTest, AStoreThatExitsNormallyIsAFailureToo) {
    service.start();
    start_daemon_and_wait();
    store.disconnect();
    service.stop();
    ASSERT_TRUE(logged("Error: Caught exception"));
    service.start();
    ASSERT_TRUE(logged(kt::normal_operation, log().wait_for("Error: Caught exception")));
    EXPECT_GE(between("Error: Caught exception", link_request), least_pause);
    EXPECT_EQ(log().count("Error: Can't connect to TAV, sleeping"), 0U);
    expect_working();
}

TEST_F(RunLoopTest, AServiceThatHangsMakesTheCallFailAndNotTheDaemonHang) {
    service.start();
    store.make_interface(1);
    kt::spawn_options_t options;
    options.environment = {{"TAV_TIMEOUT_MS", "700"}};
    start_daemon_and_wait({"-d", "-D", "4"}, options);
    service.tavd().freeze();
    device.add_address("eth0", "2001:db8::7/64");
    const std::size_t from = log().wait_for("Error: Caught exception");
    EXPECT_NE(from, 0U);
    service.tavd().thaw();
    EXPECT_TRUE(logged(kt::normal_operation, from));
    EXPECT_TRUE(becomes([&] { return store.has_address(1, "2001:db8::7/64", "Automatic"); }));
    expect_working();
}

TEST_F(RunLoopTest, ARegistrationThatFailsIsReportedOnceAndTriedAgain) {
    service.start();
    const std::string path = sandbox.directory() + "/relay.sock";
    const kt::Relay relay(path, service.socket(), 2);
    daemon = std::make_unique<kt::Process>(
        sandbox, std::vector<std::string>{kt::program("TANDREL"), "-d", "-D", "4"},
        kt::spawn_options_t{{{"TAV_SOCKET", path}}, -1, {}, false});
    ASSERT_TRUE(logged("Error: Can't register for settings"));
    ASSERT_TRUE(logged(kt::normal_operation));
    EXPECT_GE(between("Error: Can't register for settings", link_request), 2 * least_pause)
        << "one pause for each of the two failures";
    EXPECT_EQ(log().count("Error: Can't register for settings"), 1U);
    EXPECT_EQ(log().count("Error: Can't connect to TAV, sleeping"), 0U);
    EXPECT_EQ(log().count_containing("Caught exception"), 0U);
    expect_working();
    EXPECT_EQ(stop_daemon(), 0);
}

TEST_F(RunLoopTest, AnOverrunOfTheReceiveBufferRebuildsTheEngineAndNothingIsLost) {
    service.start();
    store.make_interface(1);
    start_daemon_and_wait();
    daemon->freeze();
    const auto dropped = [] {
        // Column 9 of the sockets with groups is the number of datagrams lost.
        std::istringstream table(kt::read_file("/proc/net/netlink"));
        std::string line;
        bool any = false;
        while (std::getline(table, line)) {
            std::istringstream fields(line);
            std::string address;
            std::string protocol;
            std::string port;
            std::string groups;
            std::string rest;
            unsigned long drops = 0;
            fields >> address >> protocol >> port >> groups >> rest >> rest >> rest >> rest >>
                drops;
            any = any || (protocol == "0" && groups != "00000000" && drops > 0);
        }
        return any;
    };
    for (int i = 0; i < 200000 && (i % 100 != 0 || !dropped()); ++i) {
        device.add_address("eth0", "2001:db8::aa/64");
        device.delete_address("eth0", "2001:db8::aa/64");
    }
    ASSERT_TRUE(dropped());
    device.add_address("eth0", "2001:db8::7/64");
    daemon->thaw();
    ASSERT_TRUE(logged("Error: recv: nl_recv(): -5"));
    EXPECT_TRUE(logged("Error: Caught exception: nl_recv"));
    ASSERT_TRUE(logged(kt::normal_operation, log().wait_for("Error: Caught exception: nl_recv")));
    EXPECT_GE(between("Error: Caught exception: nl_recv", link_request), least_pause);
    EXPECT_TRUE(becomes([&] { return store.has_address(1, "2001:db8::7/64", "Automatic"); }));
    expect_working();
}

TEST_F(RunLoopTest, AfterAMessageThatCannotBeSentTheEngineIsRebuilt) {
    service.start();
    store.set_address(1, "1", "2001:db8::5/64");
    start_daemon({"-d", "-D", "4"}, kt::preloaded({{"KT_FAIL_SEND", "20:1"}}));
    ASSERT_TRUE(logged("Error: Failed to send ifa message: -5"));
    EXPECT_TRUE(logged("Error: Caught exception: nl_send_auto_complete"));
    EXPECT_TRUE(becomes([&] { return device.has_address("eth0", "2001:db8::5/64"); }));
    EXPECT_GE(between("Error: Caught exception: nl_send_auto_complete", link_request), least_pause);
    expect_working();
}

TEST_F(RunLoopTest, EachMessageThatCannotBeSentHasALineOfItsOwn) {
    service.start();
    store.set_gateway(1, "fe80::1");
    const struct {
        const char *plan;
        const char *line;
        const char *exception;
    } cases[] = {
        {"18:1", "Error: request_links: nl_send(): -5", "nl_send_simple"},
        {"22:1", "Error: request_addrs: nl_send(): -5", "nl_send_simple"},
        {"26:1", "Error: request_routes: nl_send(): -5", "nl_send_simple"},
        {"24:1", "Error: Failed to send rtm message: -5", "nl_send_auto_complete"},
    };
    for (const auto &one : cases) {
        start_daemon({"-d", "-D", "4"}, kt::preloaded({{"KT_FAIL_SEND", one.plan}}));
        EXPECT_TRUE(logged(one.line));
        EXPECT_TRUE(logged(std::string("Error: Caught exception: ") + one.exception));
        EXPECT_EQ(stop_daemon(), 0) << one.line;
    }
}

TEST_F(RunLoopTest, AChannelThatCannotBeSetUpIsReportedByTheNameOfTheCall) {
    service.start();
    start_daemon({"-d", "-D", "4"}, kt::preloaded({{"KT_FAIL_BIND", "1000"}}));
    EXPECT_TRUE(logged("Error: Caught exception: nl_connect"));
    EXPECT_EQ(stop_daemon(), 0);
    start_daemon({"-d", "-D", "4"}, kt::preloaded({{"KT_FAIL_MEMBERSHIP", "1"}}));
    EXPECT_TRUE(logged("Error: Caught exception: nl_socket_add_memberships"));
    EXPECT_TRUE(logged(kt::normal_operation)) << "it works the next time";
    expect_working();
}

// A dump that never ends: the request got lost.
TEST_F(RunLoopTest, ADiscoveryThatDoesNotEndIsGivenUpAfterHalfAMinute) {
    service.start();
    start_daemon({"-d", "-D", "4"}, kt::preloaded({{"KT_LOSE_SEND", "22:1"}}));
    ASSERT_TRUE(logged("Info: void CSync::discover(): requesting addrs"));
    ASSERT_TRUE(logged("Error: Caught exception"));
    EXPECT_GE(between("Info: void CSync::discover(): requesting addrs", "Error: Caught exception"),
              std::chrono::milliseconds(29500));
    ASSERT_TRUE(logged(kt::normal_operation));
    expect_working();
}

class LibraryReportTest : public RunLoopTest {};

TEST_F(LibraryReportTest, TheStoresLibraryReportsItsErrorsThroughTheDaemonsLog) {
    start_daemon({"-d", "-D", "5"});
    const std::string line = "Error: cannot connect to the settings service at " +
                             service.socket() + ": No such file or directory";
    EXPECT_TRUE(logged(line));
    EXPECT_TRUE(logged("Error: Can't connect to TAV, sleeping"));
    EXPECT_LT(log().find(line), log().find("Error: Can't connect to TAV, sleeping"));
    EXPECT_NE(sandbox.syslog().wait_for(line), 0U);
    EXPECT_EQ(sandbox.syslog().lines()[sandbox.syslog().wait_for(line) - 1].priority, 24 + 3);
}

TEST_F(LibraryReportTest, WithoutVerbosityTheLibraryIsSilentAndSoIsTheDaemon) {
    start_daemon({"-d"});
    ASSERT_TRUE(logged("Info: Starting tandrel daemon"));
    sleep(1); // time enough for the attempt that follows at once
    EXPECT_EQ(stop_daemon(), 0);
    EXPECT_EQ(log().size(), 2U) << log().tail(10);
}

class WatchdogTest : public RunLoopTest {
protected:
    std::string status() {
        kt::spawn_options_t options;
        options.environment = {{"TAV_SOCKET", service.socket()}};
        kt::Process tav(sandbox, {kt::program("TAV"), "status"}, options);
        EXPECT_EQ(tav.wait_exit(), 0);
        tav.output().wait_finished();
        return tav.output().tail(1000);
    }
};

TEST_F(WatchdogTest, TheDaemonIsShownWithItsPeriodWhileItLivesAndAsGoneAfterwards) {
    service.start();
    EXPECT_EQ(status().find("tandrel"), std::string::npos);
    start_daemon_and_wait();
    const std::string entry =
        "tandrel  process " + std::to_string(daemon->pid()) + "  period 60 s  last ping ";
    const std::string shown = status();
    ASSERT_NE(shown.find(entry), std::string::npos) << shown;
    const std::string line = shown.substr(shown.find(entry));
    EXPECT_NE(line.substr(0, line.find('\n')).find("fine"), std::string::npos) << line;
    EXPECT_EQ(stop_daemon(), 0);
    EXPECT_TRUE(becomes([&] {
        const std::string now = status();
        return now.find(entry) != std::string::npos &&
               now.find("gone", now.find(entry)) != std::string::npos;
    }));
}

// The loop must not spin when idle or when the store is dead.
class IdleTest : public RunLoopTest {
protected:
    void expect_idle(std::chrono::seconds time) {
        const double before = kt::processor_seconds(daemon->pid());
        const std::size_t from = log().size();
        std::this_thread::sleep_for(time);
        const double used = kt::processor_seconds(daemon->pid()) - before;
        EXPECT_LT(used, 0.2 * static_cast<double>(time.count()));
        EXPECT_LT(log().count("Info: Entering select()...", from), 40U);
    }
};

TEST_F(IdleTest, InNormalOperationTheDaemonSleeps) {
    service.start();
    store.set_gateway(1, "fe80::1");
    start_daemon_and_wait();
    expect_idle(std::chrono::seconds(4));
}

TEST_F(IdleTest, WithADeadStoreTheDaemonSleeps) {
    service.start();
    start_daemon_and_wait();
    store.disconnect();
    service.crash();
    expect_idle(std::chrono::seconds(5));
    EXPECT_TRUE(logged("Error: Caught exception"));
    EXPECT_TRUE(logged("Error: Can't connect to TAV, sleeping"));
    expect_idle(std::chrono::seconds(4));
}

TEST_F(IdleTest, AStoreThatDiesDuringDiscoveryIsNoticedWithoutSpinning) {
    service.start();
    start_daemon({"-d", "-D", "4"}, kt::preloaded({{"KT_LOSE_SEND", "18:1"}}));
    ASSERT_TRUE(logged(link_request));
    store.write(kt::mark_path, "an event that stays unfetched");
    store.disconnect();
    service.crash();
    expect_idle(std::chrono::seconds(5));
    service.start();
    EXPECT_TRUE(logged("Error: Caught exception"));
    EXPECT_TRUE(logged(kt::normal_operation));
    expect_working();
}

// The store has priority over the kernel, and events are not fetched before discovery is over.
TEST_F(IdleTest, DiscoveryEndsWhileAWriterNeverRests) {
    service.start();
    store.make_interface(1);
    std::atomic<bool> stopping{false};
    std::thread writer([&] {
        kt::Store busy(service.socket());
        for (int i = 0; !stopping; ++i) {
            busy.write(kt::paths::interfaces + "/1/Busy", std::to_string(i));
        }
    });
    const auto written = [&] { return store.read(kt::paths::interfaces + "/1/Busy"); };
    EXPECT_TRUE(becomes([&] { return written().has_value(); }));
    start_daemon({"-d", "-D", "3"});
    EXPECT_TRUE(logged(kt::normal_operation));
    store.set_address(1, "1", "2001:db8::5/64");
    EXPECT_TRUE(becomes([&] { return device.has_address("eth0", "2001:db8::5/64"); }));
    device.add_address("eth0", "2001:db8::7/64");
    EXPECT_TRUE(becomes([&] { return store.has_address(1, "2001:db8::7/64", "Automatic"); }));
    stopping = true;
    writer.join();
    EXPECT_EQ(log().count_containing("Caught exception"), 0U);
    expect_working();
}

} // namespace
