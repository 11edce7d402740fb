// Detaching, scheduling and identity.
#include "shell/process.h"

#include <cerrno>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include "fakes/fake_os.h"
#include "fakes/log_capture.h"

namespace {

using entries_t = std::vector<std::string>;

class Process : public DaemonTest {};

TEST_F(Process, NiceIsSetForTheProcessItself) {
    verbosity = 9;
    fake_os::state().setpriority.returns(0);
    set_nice_priority(-5);
    EXPECT_EQ(journal::entries(), entries_t{"setpriority(0, 0, -5)"});
    EXPECT_TRUE(captured::log().empty());
}

TEST_F(Process, NiceThatIsRefusedIsWarnedAboutAtEveryVerbosity) {
    fake_os::state().setpriority.returns(-1, EACCES);
    expect_logged_at(0, LOG_WARNING,
                     "Warning: Couldn't set specified process scheduling parameters",
                     [] { set_nice_priority(-5); });
}

TEST_F(Process, RealTimeSchedulingIsSetForTheProcessItself) {
    verbosity = 9;
    fake_os::state().sched_setscheduler.returns(0);
    set_rt_scheduling({SCHED_FIFO, 42});
    EXPECT_EQ(journal::entries(), entries_t{"sched_setscheduler(0, 1, 42)"});
    EXPECT_TRUE(captured::log().empty());
}

TEST_F(Process, RealTimeSchedulingThatIsRefusedIsWarnedAboutAtEveryVerbosity) {
    fake_os::state().sched_setscheduler.returns(-1, EPERM);
    expect_logged_at(0, LOG_WARNING,
                     "Warning: Couldn't set specified [RT] thread scheduling parameters", [] {
                         set_rt_scheduling({SCHED_RR, 1});
                     });
}

TEST_F(Process, UserIsSwitched) {
    verbosity = 9;
    fake_os::state().setuid.returns(0);
    switch_user(1000);
    EXPECT_EQ(journal::entries(), entries_t{"setuid(1000)"});
    EXPECT_TRUE(captured::log().empty());
}

TEST_F(Process, UserThatIsRefusedIsAnErrorAtEveryVerbosity) {
    fake_os::state().setuid.returns(-1, EPERM);
    expect_logged_at(0, LOG_ERR, "Error: Can't setuid(1000)", [] { switch_user(1000); });
    expect_logged_at(0, LOG_ERR, "Error: Can't setuid(4294967294)",
                     [] { switch_user(4294967294U); });
}

// The standard descriptors; tests close one of this process's own.

class StandardDescriptors : public DaemonTest, public ::testing::WithParamInterface<int> {
protected:
    StandardDescriptors() : kept(fcntl(GetParam(), F_DUPFD_CLOEXEC, 100)) {
        EXPECT_GE(kept, 0);
        EXPECT_EQ(close(GetParam()), 0);
    }
    ~StandardDescriptors() override {
        EXPECT_EQ(dup2(kept, GetParam()), GetParam());
        EXPECT_EQ(close(kept), 0);
    }
    const int kept;
};

TEST_P(StandardDescriptors, ThatIsMissingIsOccupiedByTheNullDevice) {
    occupy_standard_descriptors();
    struct stat there {};
    struct stat null {};
    EXPECT_EQ(fstat(GetParam(), &there), 0);
    EXPECT_EQ(stat("/dev/null", &null), 0);
    EXPECT_EQ(there.st_rdev, null.st_rdev);
    EXPECT_EQ(fcntl(GetParam(), F_GETFL) & O_ACCMODE, O_RDWR);
}

TEST_P(StandardDescriptors, ThatIsMissingStaysSoWithoutANullDevice) {
    fake_os::state().open.returns(-1, ENOENT);
    occupy_standard_descriptors();
    EXPECT_EQ(fcntl(GetParam(), F_GETFD), -1);
    EXPECT_EQ(journal::entries(), entries_t{"open(/dev/null, " + std::to_string(O_RDWR) + ")"});
}

INSTANTIATE_TEST_SUITE_P(All, StandardDescriptors, ::testing::Values(0, 1, 2));

TEST_F(Process, OpenStandardDescriptorsAreNotChanged) {
    fake_os::state().open.returns(0);
    occupy_standard_descriptors();
    EXPECT_TRUE(journal::entries().empty());
}

// Daemonising, seen from each of the three processes.

class Daemonize : public DaemonTest {
protected:
    Daemonize() {
        os.setsid.returns(1);
        os.chdir.returns(0);
        os.umask.returns(0);
        os.open.returns(0);
        os.dup.returns(1).returns(2);
        os.close.returns(0);
    }
    static fake_os::ending_t daemonized() {
        return fake_os::ending_of([] { return daemonize(); });
    }
    // The surviving process: both forks return 0.
    void be_the_grandchild() { os.fork.returns(0); }
    void be_the_invoking_process(int child_status) {
        os.fork.returns(4711);
        os.wait.returns(4711);
        os.wait_status = child_status;
    }

    fake_os::state_t &os = fake_os::state();
};

TEST_F(Daemonize, TheGrandchildLeavesItsOldSurroundingsAndReturnsZero) {
    be_the_grandchild();
    const auto ending = daemonized();
    EXPECT_EQ(ending.how, "returned");
    EXPECT_EQ(ending.status, 0);
    EXPECT_EQ(journal::entries(),
              (entries_t{"fork()", "setsid()", "fork()", "chdir(/)", "close(0)", "close(1)",
                         "close(2)", "open(/dev/null, " + std::to_string(O_RDWR) + ")", "dup(0)",
                         "dup(0)", "umask(18)"}));
}

TEST_F(Daemonize, TheInvokingProcessWaitsForTheIntermediateChildAndExitsWithZero) {
    be_the_invoking_process(0);
    const auto ending = daemonized();
    EXPECT_EQ(ending.how, "exit");
    EXPECT_EQ(ending.status, 0);
    ASSERT_EQ(journal::entries().size(), 3U);
    EXPECT_EQ(journal::entries()[0], "fork()");
    EXPECT_EQ(journal::entries()[1].rfind("wait", 0), 0U);
    EXPECT_EQ(journal::entries()[2], "exit(0)");
}

TEST_F(Daemonize, TheInvokingProcessFailsWhenTheIntermediateChildDid) {
    // Exit statuses 1, 2 and 255; killed by 9; by 11 with a core dump.
    for (const int status : {0x0100, 0x0200, 0xff00, 0x0009, 0x008b}) {
        os.fork.clear();
        os.wait.clear();
        be_the_invoking_process(status);
        journal::clear();
        const auto ending = daemonized();
        EXPECT_EQ(ending.how, "returned") << status;
        EXPECT_EQ(ending.status, 1) << status;
        EXPECT_EQ(journal::entries().size(), 2U);
    }
}

TEST_F(Daemonize, AnInterruptedWaitIsRepeated) {
    os.wait.returns(-1, EINTR).returns(-1, EINTR);
    be_the_invoking_process(0);
    EXPECT_EQ(daemonized().how, "exit");
    EXPECT_EQ(journal::count("wait"), 3U);

    // The child's status is known only then.
    os.fork.clear();
    os.wait.now_returns(-1, EINTR);
    be_the_invoking_process(0x0100);
    const auto ending = daemonized();
    EXPECT_EQ(ending.how, "returned");
    EXPECT_EQ(ending.status, 1);
}

// With SIGCHLD ignored the system itself reaps the child, which then reported no failure.
TEST_F(Daemonize, AChildThatWasReapedElsewhereHasNotFailed) {
    os.wait.returns(-1, ECHILD);
    be_the_invoking_process(0x0100);
    const auto ending = daemonized();
    EXPECT_EQ(ending.how, "exit");
    EXPECT_EQ(ending.status, 0);
    EXPECT_EQ(journal::count("wait"), 1U);
}

TEST_F(Daemonize, TheInvokingProcessFailsWhenItCannotFork) {
    os.fork.returns(-1, EAGAIN);
    const auto ending = daemonized();
    EXPECT_EQ(ending.how, "returned");
    EXPECT_EQ(ending.status, 1);
    EXPECT_EQ(journal::entries(), entries_t{"fork()"});
}

TEST_F(Daemonize, TheIntermediateChildExitsWithZeroOnceItHasForked) {
    os.fork.returns(0).returns(4712);
    const auto ending = daemonized();
    EXPECT_EQ(ending.how, "exit");
    EXPECT_EQ(ending.status, 0);
    EXPECT_EQ(journal::entries(), (entries_t{"fork()", "setsid()", "fork()", "exit(0)"}));
}

TEST_F(Daemonize, TheIntermediateChildExitsWithOneWhenItCannotFork) {
    os.fork.returns(0).returns(-1, EAGAIN);
    const auto ending = daemonized();
    EXPECT_EQ(ending.how, "exit");
    EXPECT_EQ(ending.status, 1);
    EXPECT_EQ(journal::entries(), (entries_t{"fork()", "setsid()", "fork()", "exit(1)"}));
}

TEST_F(Daemonize, AFailedSetsidIsIgnored) {
    be_the_grandchild();
    os.setsid.now_returns(-1, EPERM);
    EXPECT_EQ(daemonized().status, 0);
}

TEST_F(Daemonize, WithoutTheRootDirectoryTheGrandchildReturnsMinusOneAndKeepsItsDescriptors) {
    be_the_grandchild();
    os.chdir.now_returns(-1, EACCES);
    const auto ending = daemonized();
    EXPECT_EQ(ending.how, "returned");
    EXPECT_EQ(ending.status, -1);
    EXPECT_EQ(journal::count("close("), 0U);
}

TEST_F(Daemonize, WithoutTheNullDeviceTheGrandchildReturnsOne) {
    be_the_grandchild();
    os.open.now_returns(-1, ENOENT);
    EXPECT_EQ(daemonized().status, 1);
    EXPECT_EQ(journal::count("umask("), 0U);
}

TEST_F(Daemonize, WithoutEitherDuplicateTheGrandchildReturnsOne) {
    be_the_grandchild();
    os.dup.now_returns(-1, EMFILE);
    EXPECT_EQ(daemonized().status, 1);
    os.dup.now_returns(1).returns(-1, EMFILE);
    EXPECT_EQ(daemonized().status, 1);
    os.dup.now_returns(-1, EMFILE).returns(1);
    EXPECT_EQ(daemonized().status, 1);
    EXPECT_EQ(journal::count("umask("), 0U);
}

} // namespace
