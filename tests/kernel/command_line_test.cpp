// The effects of the command line's options, seen from outside.

#include <sched.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <linux/capability.h>

#include "harness/world.h"

namespace {

using kt::Process;
using strings = std::vector<std::string>;

class CommandLineTest : public kt::KernelTest {
protected:
    Process run(const strings &arguments, const kt::spawn_options_t &options = {}) {
        strings all{kt::program("TANDREL")};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return Process(sandbox, all, options);
    }

    // A line of /proc/<pid>/status, without its name.
    static std::string status_of(pid_t pid, const std::string &field) {
        const std::string text = kt::read_file("/proc/" + std::to_string(pid) + "/status");
        const auto start = text.find("\n" + field + ":");
        if (start == std::string::npos) {
            return {};
        }
        const auto value = text.find_first_not_of(" \t", start + field.size() + 2);
        return text.substr(value, text.find('\n', value) - value);
    }

    // Waits until the settings of the options have been applied.
    void start_at_zero(const strings &options, const kt::spawn_options_t &spawn = {}) {
        strings all{"-d"};
        all.insert(all.end(), options.begin(), options.end());
        start_daemon(all, spawn);
        ASSERT_TRUE(logged("Info: Starting tandrel daemon"));
    }
};

strings texts(const std::vector<kt::line_t> &lines) {
    strings all;
    for (const auto &line : lines) {
        all.push_back(line.text);
    }
    return all;
}

TEST_F(CommandLineTest, UnacceptableArgumentsEndWithTheUsageTextAndStatusOne) {
    const std::vector<strings> wrong{
        {"word"}, {"-u", ""}, {"-u", "-1"}, {"-n", "20"}, {"-r", "fifo", "0"}, {"-i"}, {"-D", "x"}};
    for (const auto &arguments : wrong) {
        Process process = run(arguments);
        EXPECT_EQ(process.wait_exit(), 1) << testing::PrintToString(arguments);
        process.output().wait_finished();
        EXPECT_EQ(process.output().find_containing("Usage: "), 0)
            << testing::PrintToString(arguments);
    }
}

TEST_F(CommandLineTest, AnUnknownUserThatIsANumberIsUsedAsUserId) {
    start_at_zero({"-u", "0"});
    EXPECT_EQ(texts(log().lines()),
              (strings{"No user named '0'", "(Using UID = 0)", "Info: Starting tandrel daemon"}));
    EXPECT_EQ(status_of(daemon->pid(), "Uid"), "0\t0\t0\t0");
}

TEST_F(CommandLineTest, WithoutVerbosityOnlyStartAndEndAreLogged) {
    start_at_zero({});
    EXPECT_EQ(stop_daemon(), 0);
    EXPECT_EQ(texts(log().lines()),
              (strings{"Info: Starting tandrel daemon", "Info: Exiting tandrel daemon"}));
}

TEST_F(CommandLineTest, APriorityIsAppliedToTheProcess) {
    start_at_zero({"-n", "7"});
    EXPECT_EQ(getpriority(PRIO_PROCESS, static_cast<id_t>(daemon->pid())), 7);
    EXPECT_EQ(log().size(), 1U);
}

TEST_F(CommandLineTest, TheLastSchedulingPolicyWins) {
    start_at_zero({"-r", "fifo", "5", "-r", "batch", "0"});
    EXPECT_EQ(sched_getscheduler(daemon->pid()), SCHED_BATCH);
    EXPECT_EQ(log().size(), 1U);
}

TEST_F(CommandLineTest, SettingsWithoutPrivilegesAreLoggedAndTheDaemonContinues) {
    kt::spawn_options_t options;
    options.dropped_capabilities = {CAP_SYS_NICE, CAP_SETUID};
    start_at_zero({"-n", "-5", "-r", "rr", "5", "-u", "65534"}, options);
    EXPECT_EQ(log().count("Warning: Couldn't set specified process scheduling parameters"), 1U);
    EXPECT_EQ(log().count("Warning: Couldn't set specified [RT] thread scheduling parameters"), 1U);
    EXPECT_EQ(log().count("Error: Can't setuid(65534)"), 1U);
    EXPECT_LT(log().find("Warning: Couldn't set specified process scheduling parameters"),
              log().find("Warning: Couldn't set specified [RT] thread scheduling parameters"));
    EXPECT_LT(log().find("Warning: Couldn't set specified [RT] thread scheduling parameters"),
              log().find("Error: Can't setuid(65534)"));
    ASSERT_NE(sandbox.syslog().wait_for("Error: Can't setuid(65534)"), 0U);
    const std::string sender = "tandrel[" + std::to_string(daemon->pid()) + "]";
    for (const auto &line : sandbox.syslog().lines()) {
        const bool error = line.text.compare(0, 7, "Error: ") == 0;
        const bool warning = line.text.compare(0, 9, "Warning: ") == 0;
        EXPECT_EQ(line.priority, 24 + (error ? 3 : warning ? 4 : 6)) << line.text;
        EXPECT_EQ(line.sender, sender);
    }
    EXPECT_EQ(status_of(daemon->pid(), "Uid"), "0\t0\t0\t0");
    EXPECT_TRUE(daemon->running());
}

TEST_F(CommandLineTest, PriorityAndPolicyAreSetBeforeThePrivilegesAreGivenUp) {
    if (!kt::Sandbox::is_real_root()) {
        GTEST_SKIP() << "only the machine's root may become another user";
    }
    start_at_zero({"-u", "65534", "-n", "-5", "-r", "batch", "0"});
    EXPECT_EQ(status_of(daemon->pid(), "Uid"), "65534\t65534\t65534\t65534");
    EXPECT_EQ(getpriority(PRIO_PROCESS, static_cast<id_t>(daemon->pid())), -5);
    EXPECT_EQ(sched_getscheduler(daemon->pid()), SCHED_BATCH);
    EXPECT_EQ(log().count_containing("Couldn't"), 0U);
}

TEST_F(CommandLineTest, AUserIsFoundByName) {
    if (!kt::Sandbox::is_real_root()) {
        GTEST_SKIP() << "only the machine's root may become another user";
    }
    start_at_zero({"-u", "nobody"});
    EXPECT_EQ(status_of(daemon->pid(), "Uid"), "65534\t65534\t65534\t65534");
    EXPECT_EQ(log().count_containing("No user named"), 0U);
}

TEST_F(CommandLineTest, AFailedForkIsReportedByTheInvokingProcess) {
    const auto options = kt::preloaded({{"KT_FAIL_FORK", "1"}});
    Process process = run({}, options);
    EXPECT_EQ(process.wait_exit(), 1);
    EXPECT_EQ(texts(process.errors().lines()), strings{"Error fork()ing new process"});
}

TEST_F(CommandLineTest, TheDaemonStartsWithoutAnExitPipe) {
    const auto options = kt::preloaded({{"KT_FAIL_PIPE", "1"}});
    add_eth(0);
    service.start();
    store.make_interface(1);
    start_daemon_and_wait({"-d", "-D", "4"}, options);
    EXPECT_EQ(log().lines().front().text, "register_handlers: Error: pipe returned errno 24");
    expect_working();
}

class DaemonModeTest : public CommandLineTest {
protected:
    // Starts the daemon as a service would and returns the process that keeps running.
    pid_t detach(const strings &arguments) {
        umask(077);
        const strings options = arguments;
        Process &invoked = start_daemon(options);
        EXPECT_EQ(invoked.wait_exit(), 0);
        umask(022);
        EXPECT_NE(sandbox.syslog().wait_for("Info: Starting tandrel daemon"), 0U);
        std::vector<pid_t> found;
        // The intermediate process may still be exiting.
        kt::eventually([&] {
            found.clear();
            for (const auto &process : sandbox.processes()) {
                if (process.name == "tandrel") {
                    found.push_back(process.pid);
                }
            }
            return found.size() == 1;
        });
        EXPECT_EQ(found.size(), 1U) << "exactly one process stays";
        return found.empty() ? -1 : found.front();
    }
};

TEST_F(DaemonModeTest, ExactlyOneDetachedProcessStays) {
    const pid_t pid = detach({});
    ASSERT_GT(pid, 0);
    EXPECT_NE(pid, daemon->pid());
    EXPECT_EQ(daemon->errors().size(), 0U);
    EXPECT_EQ(daemon->output().size(), 0U);

    const std::string proc = "/proc/" + std::to_string(pid);
    char target[256] = {};
    EXPECT_GT(readlink((proc + "/cwd").c_str(), static_cast<char *>(target), sizeof target - 1), 0);
    EXPECT_STREQ(static_cast<char *>(target), "/");
    for (const std::string fd : {"0", "1", "2"}) {
        char opened[256] = {};
        EXPECT_GT(
            readlink((proc + "/fd/" + fd).c_str(), static_cast<char *>(opened), sizeof opened - 1),
            0);
        EXPECT_STREQ(static_cast<char *>(opened), "/dev/null") << fd;
    }
    EXPECT_EQ(status_of(pid, "Umask"), "0022");
    EXPECT_EQ(status_of(pid, "PPid"), std::to_string(getpid())) << "nobody waits for it but init";
    EXPECT_NE(getsid(pid), getsid(0)) << "a session of its own";
    EXPECT_NE(getsid(pid), pid) << "that it does not lead";
}

TEST_F(DaemonModeTest, OnlyTheSystemLogHasIt) {
    const pid_t pid = detach({});
    ASSERT_GT(pid, 0);
    kill(pid, SIGTERM);
    int status = -1;
    EXPECT_TRUE(kt::eventually([&] { return waitpid(pid, &status, WNOHANG) == pid; }));
    EXPECT_EQ(status, 0);
    EXPECT_NE(sandbox.syslog().wait_for("Info: Exiting tandrel daemon"), 0U);
    const auto lines = sandbox.syslog().lines();
    ASSERT_EQ(lines.size(), 2U);
    const int daemon_info = 24 + 6;
    for (const auto &line : lines) {
        // Opened by the process that keeps running, so that its number is the right one.
        EXPECT_EQ(line.sender, "tandrel[" + std::to_string(pid) + "]");
        EXPECT_EQ(line.priority, daemon_info);
    }
    EXPECT_EQ(daemon->errors().size(), 0U);
}

TEST_F(DaemonModeTest, TheDetachedDaemonDoesItsWork) {
    add_eth(0);
    service.start();
    store.set_address(1, "1", "2001:db8::5/64");
    const pid_t pid = detach({"-D", "4"});
    ASSERT_GT(pid, 0);
    EXPECT_TRUE(becomes([&] { return device.has_address("eth0", "2001:db8::5/64"); }));
    store.remove_address(1, "1");
    EXPECT_TRUE(becomes([&] { return !device.has_address("eth0", "2001:db8::5/64"); }));
    EXPECT_NE(sandbox.syslog().find(kt::normal_operation), -1);
    kill(pid, SIGTERM);
    EXPECT_TRUE(kt::eventually([&] { return waitpid(pid, nullptr, WNOHANG) == pid; }));
}

// A signal while it detaches.
class DetachingTest : public DaemonModeTest {
protected:
    // Starts the daemon and returns its intermediate process, which takes its time.
    pid_t detach_slowly() {
        service.start();
        start_daemon({"-D", "4"}, kt::preloaded({{"KT_SETSID_DELAY", "900"}}));
        pid_t intermediate = -1;
        EXPECT_TRUE(kt::eventually([&] {
            for (const auto &process : sandbox.processes()) {
                if (process.name == "tandrel" && process.pid != daemon->pid()) {
                    intermediate = process.pid;
                }
            }
            return intermediate != -1;
        }));
        return intermediate;
    }
    std::size_t cycles() { return sandbox.syslog().count("Info: Entering select()..."); }
};

// The byte in the inherited pipe once kept the daemon spinning, deaf to everything else.
TEST_F(DetachingTest, ASignalToTheInvokingProcessDoesNotReachTheDaemon) {
    const pid_t intermediate = detach_slowly();
    ASSERT_GT(intermediate, 0);
    daemon->signal(SIGTERM);
    EXPECT_EQ(daemon->wait_exit(), 0);
    ASSERT_NE(sandbox.syslog().wait_for(kt::normal_operation), 0U);
    EXPECT_TRUE(kt::eventually([&] {
        const std::size_t before = cycles();
        usleep(300000);
        return cycles() == before;
    })) << "it sleeps between events";
    EXPECT_EQ(sandbox.syslog().count("Info: Exiting tandrel daemon"), 0U);
}

TEST_F(DetachingTest, ASignalToTheIntermediateProcessEndsTheDaemonThatItMakes) {
    const pid_t intermediate = detach_slowly();
    ASSERT_GT(intermediate, 0);
    kill(intermediate, SIGTERM);
    EXPECT_EQ(daemon->wait_exit(), 0);
    EXPECT_NE(sandbox.syslog().wait_for("Info: Exiting tandrel daemon"), 0U);
    EXPECT_EQ(sandbox.syslog().count("Info: void CSync::discover(): requesting link state"), 0U);
}

} // namespace
