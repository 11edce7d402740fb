// The order in which the entry point does things.
#include <cerrno>
#include <initializer_list>
#include <string>
#include <vector>

#include <unistd.h>

#include "fakes/daemon_main.h"
#include "fakes/fake_os.h"
#include "fakes/log_capture.h"
#include "shell/signals.h"

namespace {

using entries_t = std::vector<std::string>;

class Main : public DaemonTest {
protected:
    // With an existing exit request the run loop returns at once.
    Main() {
        exit_requested = 1;
        os.pipe.returns(0);
        os.select.arm();
        os.sigaction.returns(0);
        os.close.returns(0);
        os.setpriority.returns(0);
        os.sched_setscheduler.returns(0);
        os.setuid.returns(0);
        os.fork.returns(0);
        os.setsid.returns(1);
        os.chdir.returns(0);
        os.umask.returns(0);
        os.open.returns(0);
        os.dup.returns(1).returns(2);
        os.users_armed = true;
        os.users = {{"someone", 4242}};
        os.getuid.returns(1000);
        run_as_uid = 1000;
    }
    static int run(const entries_t &arguments) {
        const auto ending = ending_of_daemon(arguments);
        EXPECT_EQ(ending.how, "returned");
        return ending.status;
    }
    // The same, without printing the usage text to the terminal.
    static int run_silently(const entries_t &arguments) {
        // Capturing needs the real ones.
        auto close = fake_os::state().close;
        auto dup = fake_os::state().dup;
        fake_os::state().close.clear();
        fake_os::state().dup.clear();
        ::testing::internal::CaptureStdout();
        const int status = run(arguments);
        EXPECT_EQ(::testing::internal::GetCapturedStdout().rfind("Usage: tandrel ", 0), 0U);
        fake_os::state().close = close;
        fake_os::state().dup = dup;
        return status;
    }
    static entries_t journal_without_sigactions() {
        entries_t entries;
        for (const auto &entry : journal::entries()) {
            if (entry.rfind("sigaction(", 0) != 0) {
                entries.push_back(entry);
            }
        }
        return entries;
    }

    fake_os::state_t &os = fake_os::state();
};

TEST_F(Main, DoesEverythingInItsOrder) {
    EXPECT_EQ(run({"-d", "-n", "5", "-r", "fifo", "10", "-u", "someone"}), 0);
    EXPECT_EQ(journal_without_sigactions(),
              (entries_t{"pipe()", "getpwnam(someone)", "openlog(tandrel, 3, 24)",
                         "setpriority(0, 0, 5)", "sched_setscheduler(0, 1, 10)", "setuid(4242)",
                         "log 6 Info: Starting tandrel daemon",
                         "log 6 Info: Exiting tandrel daemon", "close(80)", "close(81)"}));
}

TEST_F(Main, InstallsTheHandlersBeforeParsingAndRestoresThemAfterTheRunLoop) {
    run({"-d", "-u", "someone"});
    EXPECT_EQ(journal::find("pipe()"), 0U);
    EXPECT_EQ(journal::count("sigaction("), 16U);
    for (std::size_t i = 1; i <= 8; ++i) {
        EXPECT_NE(journal::entries()[i].find("signal_handler"), std::string::npos);
    }
    EXPECT_LT(journal::find("sigaction("), journal::find("getpwnam("));
    const std::size_t restored = journal::find("sigaction(11, default");
    EXPECT_LT(journal::find("log 6 Info: Exiting"), restored);
    EXPECT_LT(restored, journal::find("close(80)"));
}

TEST_F(Main, OccupiesAMissingStandardDescriptorBeforeTheExitPipeCouldTakeItsPlace) {
    os.close.clear();
    os.dup.clear();
    const int kept = dup(STDIN_FILENO);
    ASSERT_EQ(close(STDIN_FILENO), 0);
    os.close.returns(0);
    run({"-d"});
    os.close.clear();
    EXPECT_EQ(dup2(kept, STDIN_FILENO), STDIN_FILENO);
    close(kept);
    EXPECT_EQ(journal::find("open(/dev/null, 2)"), 0U);
    EXPECT_EQ(journal::find("pipe()"), 1U);
    EXPECT_EQ(journal::count("open("), 1U);
}

TEST_F(Main, DetachesBeforeItOpensTheLog) {
    EXPECT_EQ(run({}), 0);
    EXPECT_EQ(journal_without_sigactions(), (entries_t{"pipe()",
                                                       "fork()",
                                                       "setsid()",
                                                       "fork()",
                                                       "chdir(/)",
                                                       "close(0)",
                                                       "close(1)",
                                                       "close(2)",
                                                       "open(/dev/null, 2)",
                                                       "dup(0)",
                                                       "dup(0)",
                                                       "umask(18)",
                                                       "pipe()",
                                                       "close(80)",
                                                       "close(81)",
                                                       "openlog(tandrel, 3, 24)",
                                                       "log 6 Info: Starting tandrel daemon",
                                                       "log 6 Info: Exiting tandrel daemon",
                                                       "close(80)",
                                                       "close(81)"}));
}

TEST_F(Main, DoesNotDetachWithD) {
    run({"-d"});
    EXPECT_EQ(journal::count("fork()"), 0U);
}

TEST_F(Main, FailsWithAMessageWhenItCannotDetach) {
    os.fork.now_returns(-1, EAGAIN);
    EXPECT_EQ(run({"-n", "5"}), 1);
    EXPECT_EQ(captured::standard_error(), "Error fork()ing new process\n");
    EXPECT_EQ(journal::count("openlog("), 0U);
    EXPECT_EQ(journal::count("setpriority("), 0U);
    EXPECT_TRUE(captured::log().empty());
}

TEST_F(Main, FailsWithTheSameMessageWhenTheRootDirectoryIsRefused) {
    os.chdir.now_returns(-1, EACCES);
    EXPECT_EQ(run({}), 1);
    EXPECT_EQ(captured::standard_error(), "Error fork()ing new process\n");
    EXPECT_EQ(journal::count("openlog("), 0U);
}

TEST_F(Main, LeavesTheInvokingProcessWithStatusZero) {
    os.fork.now_returns(4711);
    os.wait.returns(4711);
    const auto ending = ending_of_daemon({});
    EXPECT_EQ(ending.how, "exit");
    EXPECT_EQ(ending.status, 0);
    EXPECT_EQ(journal::count("openlog("), 0U);
}

TEST_F(Main, EndsWithOneAfterTheUsageTextAndDoesNothingElse) {
    EXPECT_EQ(run_silently({"bogus"}), 1);
    EXPECT_EQ(journal_without_sigactions(), entries_t{"pipe()"});
}

TEST_F(Main, RefusesAPriorityOutOfRangeBeforeItIsApplied) {
    EXPECT_EQ(run_silently({"-d", "-n", "20"}), 1);
    EXPECT_EQ(journal::count("setpriority("), 0U);
}

TEST_F(Main, AppliesOnlyWhatWasAskedFor) {
    run({"-d"});
    EXPECT_EQ(journal::count("setpriority("), 0U);
    EXPECT_EQ(journal::count("sched_setscheduler("), 0U);
    EXPECT_EQ(journal::count("setuid("), 0U);
}

TEST_F(Main, AppliesTheBestPriorityToo) {
    run({"-d", "-n", "-20"});
    EXPECT_EQ(journal::count("setpriority(0, 0, -20)"), 1U);
}

TEST_F(Main, DoesNotSwitchToTheUserThatItIs) {
    os.users = {{"me", 1000}};
    run({"-d", "-u", "me"});
    EXPECT_EQ(journal::count("setuid("), 0U);
}

TEST_F(Main, RunsAsUserZeroWhenGivenByNumber) {
    run({"-d", "-u", "0"});
    EXPECT_EQ(journal::count("setuid(0)"), 1U);
    const std::string text = captured::standard_error();
    EXPECT_EQ(text.rfind("No user named '0'\n(Using UID = 0)\n", 0), 0U) << text;
}

TEST_F(Main, ContinuesWhenPriorityPolicyAndUserAreRefused) {
    os.setpriority.now_returns(-1, EACCES);
    os.sched_setscheduler.now_returns(-1, EPERM);
    os.setuid.now_returns(-1, EPERM);
    EXPECT_EQ(run({"-d", "-n", "-5", "-r", "rr", "1", "-u", "someone"}), 0);
    EXPECT_EQ(captured::log_texts(),
              (entries_t{"Warning: Couldn't set specified process scheduling parameters",
                         "Warning: Couldn't set specified [RT] thread scheduling parameters",
                         "Error: Can't setuid(4242)", "Info: Starting tandrel daemon",
                         "Info: Exiting tandrel daemon"}));
}

} // namespace
