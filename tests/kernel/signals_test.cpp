// Termination signals, faults, and their log lines.

#include <cstdio>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "harness/world.h"

namespace {

constexpr int daemon_critical = 24 + 2;

class SignalTest : public kt::KernelTest {
protected:
    void SetUp() override {
        add_eth(0);
        service.start();
    }

    // The daemon waits in select.
    void start_and_idle() {
        start_daemon_and_wait();
        // A fault inside syslog, which holds its lock, would never be logged: wait until the line
        // was sent and the process sleeps again.
        ASSERT_TRUE(kt::eventually([this] {
            const std::string idle = "Info: Entering select()...";
            const std::string stat =
                kt::read_file("/proc/" + std::to_string(daemon->pid()) + "/stat");
            return log().lines().back().text == idle &&
                   sandbox.syslog().lines().back().text == idle &&
                   stat.find(") S") != std::string::npos;
        }));
    }

    void ends_on(int number) {
        start_and_idle();
        const std::size_t from = log().size();
        daemon->signal(number);
        EXPECT_EQ(daemon->wait_exit(), 0);
        // The signal interrupts the select, which throws an exception like others.
        const long interrupted = log().find("Error: Caught exception", from);
        const long caught = log().find("Info: Caught user-initiated exit signal...", from);
        const long exiting = log().find("Info: Exiting tandrel daemon", from);
        EXPECT_GE(interrupted, 0);
        EXPECT_LT(interrupted, caught);
        EXPECT_LT(caught, exiting);
        EXPECT_EQ(static_cast<std::size_t>(exiting), log().size() - 1);
    }

    void crashes_on(int number, const std::string &text) {
        start_and_idle();
        daemon->signal(number);
        EXPECT_EQ(daemon->wait_killed(), SIGABRT);
        ASSERT_GE(log().find(text), 0);
        const auto from = static_cast<std::size_t>(log().find(text));
        EXPECT_EQ(log().find("Backtrace:"), static_cast<long>(from) + 1);

        // Frames are numbered from 0, the handler's own included.
        const auto lines = log().lines(from + 2);
        ASSERT_GT(lines.size(), 3U);
        bool listening = false;
        for (std::size_t i = 0; i < lines.size(); ++i) {
            const std::string number_text = "[" + std::to_string(i) + "]  ";
            EXPECT_EQ(lines[i].text.substr(0, number_text.size()), number_text);
            listening = listening || lines[i].text == number_text + "CSync::listen()";
        }
        EXPECT_TRUE(listening) << log().tail(20);

        // The system log got the same, at the highest priority.
        ASSERT_TRUE(sandbox.syslog().wait_for_containing("  CSync::listen()"));
        const long first = sandbox.syslog().find(text);
        ASSERT_GE(first, 0);
        const auto logged_lines = sandbox.syslog().lines(static_cast<std::size_t>(first));
        for (std::size_t i = 0; i < logged_lines.size(); ++i) {
            EXPECT_EQ(logged_lines[i].priority, daemon_critical);
            EXPECT_EQ(logged_lines[i].text, log().lines(from + i).front().text);
        }
    }
};

TEST_F(SignalTest, SigtermEndsTheDaemonInOrder) {
    ends_on(SIGTERM);
}
TEST_F(SignalTest, SighupEndsTheDaemonInOrder) {
    ends_on(SIGHUP);
}
TEST_F(SignalTest, SigintEndsTheDaemonInOrder) {
    ends_on(SIGINT);
}
TEST_F(SignalTest, SigquitEndsTheDaemonInOrder) {
    ends_on(SIGQUIT);
}

TEST_F(SignalTest, SigsegvPrintsABacktraceThatNamesListenAndAborts) {
    crashes_on(SIGSEGV, "Segmentation Fault");
}
TEST_F(SignalTest, SigillPrintsABacktraceThatNamesListenAndAborts) {
    crashes_on(SIGILL, "Illegal Instruction");
}
TEST_F(SignalTest, SigfpePrintsABacktraceThatNamesListenAndAborts) {
    crashes_on(SIGFPE, "FP Exception");
}

// A fault inside the engine, during a synchronisation.
TEST_F(SignalTest, ABacktraceNamesTheFunctionsOfTheEngineThatLedToTheFault) {
    start_daemon({"-d", "-D", "4"}, kt::preloaded({{"KT_CRASH_ON", "list"}}));
    ASSERT_EQ(daemon->wait_killed(), SIGABRT) << log().tail(20);
    const std::size_t from = log().wait_for("Segmentation Fault");
    ASSERT_NE(from, 0U);
    for (const std::string function :
         {"CSync::read_all_tav_ipv6_settings()", "CSync::sync_all()", "CSync::listen()"}) {
        EXPECT_EQ(log().count_containing("]  " + function, from), 1U) << log().tail(30);
        EXPECT_NE(sandbox.syslog().wait_for_containing("]  " + function), 0U);
    }
}

// The fault's report would wait for ever for the lock that the interrupted report holds.
TEST_F(SignalTest, AFaultDuringAReportToTheSystemLogStillEndsTheDaemon) {
    // A log socket that nobody reads and that is full: the first report waits.
    ASSERT_EQ(std::rename("/dev/log", "/dev/log.of-the-test"), 0);
    const int unread = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int sender = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const sockaddr_un address{AF_UNIX, "/dev/log"};
    ASSERT_EQ(bind(unread, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(connect(sender, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    while (send(sender, "", 1, 0) == 1) {
    }
    start_daemon();
    ASSERT_TRUE(kt::eventually([this] {
        const std::string stat = kt::read_file("/proc/" + std::to_string(daemon->pid()) + "/stat");
        return log().size() == 1 && stat.find(") S") != std::string::npos;
    })) << log().tail(20);
    daemon->signal(SIGSEGV);
    EXPECT_EQ(daemon->wait_killed(), SIGABRT);
    EXPECT_EQ(log().lines().back().text, "Segmentation Fault");
    EXPECT_EQ(close(sender), 0);
    EXPECT_EQ(close(unread), 0);
}

TEST_F(SignalTest, ASecondTerminationSignalChangesNothing) {
    start_and_idle();
    daemon->freeze(); // so that both arrive together
    daemon->signal(SIGTERM);
    daemon->signal(SIGHUP);
    daemon->thaw();
    EXPECT_EQ(daemon->wait_exit(), 0);
    EXPECT_EQ(log().count("Info: Caught user-initiated exit signal..."), 1U);
    EXPECT_EQ(log().count("Info: Exiting tandrel daemon"), 1U);
}

TEST_F(SignalTest, ASignalDuringThePauseEndsIt) {
    service.stop();
    start_daemon();
    ASSERT_TRUE(logged("Error: Can't connect to TAV, sleeping"));
    EXPECT_EQ(stop_daemon(), 0);
    EXPECT_EQ(log().count("Info: Caught user-initiated exit signal..."), 1U);
    EXPECT_EQ(log().count("Info: Exiting tandrel daemon"), 1U);
}

TEST_F(SignalTest, SigpipeDoesNotEndTheDaemon) {
    rebuilds_allowed = true; // an interrupted select rebuilds the engine, for any signal
    start_and_idle();
    daemon->signal(SIGPIPE);
    const std::size_t from = log().wait_for("Error: Caught exception");
    ASSERT_NE(from, 0U);
    EXPECT_TRUE(logged(kt::normal_operation, from));
    EXPECT_TRUE(settle());
    EXPECT_EQ(log().count("Info: Caught user-initiated exit signal..."), 0U);
}

} // namespace
