// The client library when the service hangs, dies, or is not there.
#include "support/store_fixture.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/time.h>

#include <chrono>
#include <csignal>
#include <set>
#include <thread>

using namespace tavtest;

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

class FailureTest : public RunningStoreTest {
protected:
    void connect(const char *limit_ms = "300") {
        ::setenv("TAV_TIMEOUT_MS", limit_ms, 1);
        client = std::make_unique<Client>();
        ASSERT_TRUE(client->connected());
        api_status_t status = api_status_none;
        ASSERT_EQ(client->tav.event_register("/n", api_event_change, false, status), 0);
        client->settle();
        fd = client->fd();
    }

    // A call that is neither a ping nor a fetch.
    int call() {
        api_status_t status = api_status_ok;
        std::vector<toolkit::child_t> children;
        const int result = client->tav.list_node("/", status, children);
        EXPECT_EQ(status, result == 0 ? api_status_ok : api_status_none);
        return result;
    }
    int ping() {
        api_status_t status = api_status_ok;
        return client->tav.watchdog_ping(status);
    }
    int fetch() {
        std::vector<toolkit::CEvent> events;
        return client->tav.events_get(events);
    }

    // Of a descriptor that shows a failure.
    void expect_readable_until_the_second_ping() {
        expect_valid_descriptor();
        EXPECT_TRUE(readable(fd));
        EXPECT_LT(ping(), 0);
        expect_valid_descriptor();
        EXPECT_TRUE(readable(fd));
        EXPECT_LT(ping(), 0);
        EXPECT_FALSE(readable(fd));
    }

    void hang() {
        tavd->signal(SIGSTOP);
        // Until it has really stopped it might still answer.
        while (read_file("/proc/" + std::to_string(tavd->pid()) + "/stat").find(") T ") ==
               std::string::npos) {
        }
    }
    void die() {
        tavd->signal(SIGKILL);
        tavd->wait();
    }

    void expect_valid_descriptor() {
        EXPECT_EQ(client->fd(), fd);
        EXPECT_NE(::fcntl(fd, F_GETFD), -1);
        EXPECT_NE(::fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    }

    std::unique_ptr<Client> client;
    int fd = -1;
};

std::set<int> open_descriptors() {
    std::set<int> result;
    DIR *directory = ::opendir("/proc/self/fd");
    while (const dirent *entry = ::readdir(directory)) {
        if (entry->d_name[0] != '.') {
            result.insert(std::stoi(entry->d_name));
        }
    }
    ::closedir(directory);
    return result;
}

} // namespace

TEST_F(FailureTest, ACallToAHangingServiceFailsAfterItsTimeLimit) {
    connect();
    hang();
    const Clock::time_point before = Clock::now();
    EXPECT_LT(call(), 0);
    EXPECT_GE(Clock::now() - before, milliseconds(300));
    ASSERT_EQ(reports().size(), 1U);
    EXPECT_EQ(reports()[0].first, 0U);
    EXPECT_TRUE(has(reports()[0].second, "did not answer in time"));
}

TEST_F(FailureTest, AfterATimeLimitEveryLaterCallFailsAtOnceAlsoWhenTheServiceIsBack) {
    connect("2000");
    hang();
    EXPECT_LT(call(), 0);
    const Clock::time_point before = Clock::now();
    for (int i = 0; i < 20; ++i) {
        EXPECT_LT(call(), 0);
        EXPECT_LT(fetch(), 0);
    }
    // Waiting each time would take 80 seconds.
    EXPECT_LT(Clock::now() - before, milliseconds(40000));
    tavd->signal(SIGCONT);
    EXPECT_LT(call(), 0);
    EXPECT_LT(ping(), 0);
    EXPECT_EQ(reports().size(), 1U) << "one fault, one report";
    Client fresh;
    EXPECT_TRUE(fresh.connected());
}

TEST_F(FailureTest, AfterAFailedCallTheDescriptorIsReadableUntilTheSecondPing) {
    connect();
    hang();
    EXPECT_FALSE(readable(fd));
    EXPECT_LT(call(), 0);
    expect_readable_until_the_second_ping();
    EXPECT_LT(ping(), 0);
    EXPECT_LT(call(), 0);
    EXPECT_FALSE(readable(fd));
    expect_valid_descriptor();
}

TEST_F(FailureTest, APingThatIsNotTakenWithinTheTimeLimitIsMissedByALaterOne) {
    connect();
    hang();
    EXPECT_EQ(ping(), 0) << "nobody waits for it to be taken";
    EXPECT_EQ(ping(), 0);
    std::this_thread::sleep_for(milliseconds(301));
    EXPECT_LT(ping(), 0);
    ASSERT_EQ(reports().size(), 1U);
    EXPECT_TRUE(has(reports()[0].second, "did not answer in time"));
}

TEST_F(FailureTest, PingsFarApartDoNotDisturbAServiceThatTakesThem) {
    connect("2000");
    EXPECT_EQ(ping(), 0);
    std::this_thread::sleep_for(milliseconds(2001));
    EXPECT_EQ(ping(), 0);
    EXPECT_EQ(call(), 0);
}

TEST_F(FailureTest, AFetchBetweenThePingsKeepsItReadable) {
    connect();
    die();
    EXPECT_LT(ping(), 0);
    EXPECT_LT(fetch(), 0);
    EXPECT_LT(ping(), 0);
    EXPECT_TRUE(readable(fd));
    EXPECT_LT(ping(), 0);
    EXPECT_FALSE(readable(fd));
}

TEST_F(FailureTest, TheDeathOfTheServiceMakesTheDescriptorReadableUntilTheSecondPing) {
    connect();
    die();
    ASSERT_TRUE(becomes_readable(fd));
    expect_readable_until_the_second_ping();
    EXPECT_LT(fetch(), 0);
    EXPECT_LT(call(), 0);
    ASSERT_EQ(reports().size(), 1U);
    EXPECT_EQ(reports()[0].first, 0U);
    EXPECT_TRUE(has(reports()[0].second, "closed the connection"));
}

TEST_F(FailureTest, WakeUpsThatWereThereBeforeTheDeathDoNotDisturbIt) {
    connect();
    Client writer;
    writer.set("/n/1", "x");
    ASSERT_TRUE(becomes_readable(fd));
    EXPECT_EQ(ping(), 0);
    die();
    expect_readable_until_the_second_ping();
    writer.close();
}

TEST_F(FailureTest, WritesFailWithOneStatusPerPath) {
    connect();
    die();
    std::vector<api_status_t> statuses;
    const std::vector<toolkit::CElement> values(2, toolkit::CElement("x", -1));
    EXPECT_LT(client->tav.set_leaves({"/n/a", "/n/b"}, values, {}, statuses, ""), 0);
    EXPECT_EQ(statuses, std::vector<api_status_t>(2, api_status_none));
    std::vector<toolkit::CElement> read;
    std::vector<element_property_t> properties;
    EXPECT_LT(client->tav.get_leaves({"/n/a", "/n/b"}, statuses, read, properties), 0);
    EXPECT_EQ(statuses.size(), 2U);
    EXPECT_EQ(read.size(), 2U);
}

TEST_F(FailureTest, NoDescriptorIsLeakedAndEachIsCloseOnExec) {
    const std::set<int> before = open_descriptors();
    connect();
    const std::set<int> during = open_descriptors();
    EXPECT_GT(during.size(), before.size());
    for (const int descriptor : during) {
        if (before.count(descriptor) == 0) {
            EXPECT_NE(::fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0) << descriptor;
        }
    }
    die();
    EXPECT_LT(call(), 0);
    client.reset();
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(FailureTest, AnInterruptedCallContinues) {
    connect("60000");
    struct sigaction action {};
    action.sa_handler = [](int) {}; // no SA_RESTART: each wait is interrupted
    struct sigaction previous {};
    ::sigaction(SIGALRM, &action, &previous);
    const itimerval often{{0, 500}, {0, 500}};
    ::setitimer(ITIMER_REAL, &often, nullptr);
    int failed = 0;
    for (int i = 0; i < 2000; ++i) {
        failed += call() == 0 ? 0 : 1;
    }
    const itimerval never{};
    ::setitimer(ITIMER_REAL, &never, nullptr);
    ::sigaction(SIGALRM, &previous, nullptr);
    EXPECT_EQ(failed, 0);
}

TEST_F(FailureTest, ConnectingToAHangingServiceFailsAfterTheTimeLimit) {
    hang();
    ::setenv("TAV_TIMEOUT_MS", "300", 1);
    EXPECT_EQ(mlr_init(), nullptr);
    ASSERT_EQ(reports().size(), 1U);
    EXPECT_EQ(reports()[0].first, 1U);
    EXPECT_TRUE(has(reports()[0].second, "did not answer in time"));
}

TEST_F(FailureTest, TheTimeLimitIsFiveSecondsByDefault) {
    ::unsetenv("TAV_TIMEOUT_MS");
    client = std::make_unique<Client>();
    hang();
    const Clock::time_point before = Clock::now();
    EXPECT_LT(call(), 0);
    EXPECT_GE(Clock::now() - before, milliseconds(5000));
}

TEST_F(FailureTest, AnImpossibleTimeLimitIsReportedAndReplacedByTheDefault) {
    ::setenv("TAV_TIMEOUT_MS", "soon", 1);
    Client patient;
    EXPECT_TRUE(patient.connected());
    ASSERT_EQ(reports().size(), 1U);
    EXPECT_EQ(reports()[0].first, 2U);
}

using NoServiceTest = StoreTest;

TEST_F(NoServiceTest, ConnectingFailsAndSaysWhy) {
    EXPECT_EQ(mlr_init(), nullptr);
    ASSERT_EQ(reports().size(), 1U);
    EXPECT_EQ(reports()[0].first, 1U);
    EXPECT_EQ(reports()[0].second, "cannot connect to the settings service at " + socket +
                                       ": No such file or directory");
}

TEST_F(NoServiceTest, TheSameFailureIsReportedOnceUntilItChanges) {
    const auto attempt = [](std::size_t new_reports) {
        const std::size_t before = reports().size();
        mlr_close(mlr_init());
        EXPECT_EQ(reports().size(), before + new_reports);
    };
    attempt(1);
    attempt(0);
    ::setenv("TAV_SOCKET", "/dev/null", 1);
    attempt(1);
    attempt(0);
    ::setenv("TAV_SOCKET", socket.c_str(), 1);
    attempt(1);
    start();
    attempt(0);
    stop();
    attempt(1);
}

TEST_F(NoServiceTest, AProgramWithoutTheHookContinues) {
    EXPECT_EQ(run(dir, {TAV_NO_HOOK_PROGRAM}).status, 0);
}
