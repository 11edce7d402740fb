// Descriptors that run out, and missing standard descriptors.

#include <algorithm>

#include <csignal>

#include <sys/resource.h>
#include <sys/wait.h>

#include "harness/world.h"

namespace {

class DescriptorTest : public kt::KeptStoreTest {
protected:
    void SetUp() override {
        add_eth(0);
        service.start();
        store.make_interface(1);
    }
    // No descriptor of that number or a higher one can be opened.
    void limit_descriptors(int fd) const {
        rlimit limit{};
        ASSERT_EQ(prlimit(daemon->pid(), RLIMIT_NOFILE, nullptr, &limit), 0);
        limit.rlim_cur = static_cast<rlim_t>(fd);
        ASSERT_EQ(prlimit(daemon->pid(), RLIMIT_NOFILE, &limit, nullptr), 0);
    }
    std::map<int, std::string> open_now() const { return kt::descriptors(daemon->pid()); }
    // The limit applies to the descriptor's number: open takes the lowest free one, if it is below
    // the limit.
    static int lowest_free(const std::map<int, std::string> &open) {
        int fd = 0;
        while (open.count(fd) != 0) {
            ++fd;
        }
        return fd;
    }
};

TEST_F(DescriptorTest, NoneIsNeededInNormalOperation) {
    start_daemon_and_wait();
    const auto before = open_now();
    limit_descriptors(lowest_free(before));
    expect_working();
    EXPECT_EQ(open_now(), before);
}

TEST_F(DescriptorTest, ThatRunOutAreWaitedForAtEachStepOfARebuild) {
    rebuilds_allowed = true;
    start_daemon_and_wait({"-d", "-D", "5"}, kt::preloaded({{"KT_PAUSE_MS", "500"}}));
    const auto usual = open_now();

    // Neither connection.
    store.disconnect();
    service.crash();
    ASSERT_TRUE(logged("Error: Can't connect to TAV, sleeping"));
    const auto least = open_now();
    limit_descriptors(lowest_free(least));
    service.start();
    EXPECT_NE(log().wait_for_containing("Too many open files"), 0U);
    EXPECT_EQ(open_now(), least);
    EXPECT_EQ(log().count("Error: Can't connect to TAV, sleeping"), 1U);

    // The store's, and not the kernel's, which is opened last.
    int last = 0;
    for (const auto &[fd, target] : usual) {
        last = least.count(fd) == 0 ? fd : last;
    }
    ASSERT_GT(last, lowest_free(least));
    limit_descriptors(last);
    const std::size_t refused = log().wait_for("Error: Caught exception: nl_connect");
    EXPECT_NE(refused, 0U);
    EXPECT_NE(log().wait_for("Error: Caught exception: nl_connect", refused), 0U);

    const std::size_t from = log().size();
    limit_descriptors(1024);
    EXPECT_TRUE(logged(kt::normal_operation, from));
    expect_working();
    EXPECT_EQ(open_now().size(), usual.size()) << "none was lost on the way";
}

class ClosedDescriptorTest : public DescriptorTest,
                             public ::testing::WithParamInterface<std::vector<int>> {
protected:
    // The daemon without its standard descriptors; the process that stays.
    pid_t start(std::vector<std::string> arguments) {
        kt::spawn_options_t options;
        options.closed = GetParam();
        start_daemon(arguments, options);
        const bool detaches = arguments.front() != "-d";
        if (detaches) {
            EXPECT_EQ(daemon->wait_exit(), 0);
        }
        EXPECT_NE(sandbox.syslog().wait_for(kt::normal_operation), 0U);
        for (const auto &process : sandbox.processes()) {
            if (process.name == "tandrel" && (!detaches || process.pid != daemon->pid())) {
                return process.pid;
            }
        }
        return -1;
    }

    void expect_the_exit_pipe_works(pid_t pid) {
        const auto all = kt::descriptors(pid);
        for (const int fd : GetParam()) {
            EXPECT_EQ(all.at(fd), "/dev/null") << fd;
        }
        // Both ends of one pipe, neither of them a standard descriptor.
        std::map<std::string, int> ends;
        for (const auto &[fd, target] : all) {
            ends[target] += fd > 2 && target.rfind("pipe:", 0) == 0 ? 1 : 0;
        }
        EXPECT_TRUE(std::any_of(ends.begin(), ends.end(),
                                [](const auto &pipe) { return pipe.second == 2; }));
        // A descriptor that is always readable in the pipe's place would make the loop spin.
        EXPECT_LT(sandbox.syslog().count("Info: Entering select()..."), 100U);
        kill(pid, SIGTERM);
        EXPECT_NE(sandbox.syslog().wait_for("Info: Exiting tandrel daemon"), 0U);
    }
};

TEST_P(ClosedDescriptorTest, AtTheStartDoNotCostADetachedDaemonItsExitPipe) {
    const pid_t pid = start({"-D", "4"});
    ASSERT_GT(pid, 0);
    expect_the_exit_pipe_works(pid);
    int status = -1;
    EXPECT_TRUE(kt::eventually([&] { return waitpid(pid, &status, WNOHANG) == pid; }));
    EXPECT_EQ(status, 0);
}

TEST_P(ClosedDescriptorTest, AtTheStartAreNotTakenByAConnection) {
    const pid_t pid = start({"-d", "-D", "4"});
    ASSERT_GT(pid, 0);
    store.set_address(1, "1", "2001:db8::5/64");
    EXPECT_TRUE(becomes([&] { return device.has_address("eth0", "2001:db8::5/64"); }));
    expect_the_exit_pipe_works(pid);
    EXPECT_EQ(daemon->wait_exit(), 0);
}

INSTANTIATE_TEST_SUITE_P(All, ClosedDescriptorTest,
                         ::testing::Values(std::vector<int>{0}, std::vector<int>{1},
                                           std::vector<int>{2}, std::vector<int>{0, 1, 2}),
                         [](const auto &test) {
                             std::string name;
                             for (const int fd : test.param) {
                                 name += std::to_string(fd);
                             }
                             return name;
                         });

} // namespace
