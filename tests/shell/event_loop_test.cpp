// One cycle of waiting and serving, and the loop around it.
#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include <linux/rtnetlink.h>
#include <sys/select.h>
#include <syslog.h>

#include "fakes/engine_fixture.h"
#include "fakes/fake_libnl.h"
#include "fakes/fake_os.h"
#include "fakes/fake_tav.h"
#include "fakes/log_capture.h"
#include "netlink/channel.h"
#include "shell/exit_pipe_with_a_byte.h"
#include "shell/signals.h"
#include "sync/errors.h"
#include "sync/sync.h"

namespace {

using entries_t = std::vector<std::string>;

struct Loop : CSync {
    using CSync::CSync;
    using CSync::listen;
    using CSync::state;
};

const int store_fd = 60;
const int netlink_fd = 70;
const int exit_fd = 80;

class EventLoop : public DaemonTest {
protected:
    EventLoop() {
        exit_pipe[0] = exit_fd;
        exit_pipe[1] = exit_fd + 1;
        os.select.arm();
        fake_tav::state().fd = store_fd;
        fake_libnl::state().fd = netlink_fd;
        tav.handle = mlr_init();
        journal::clear();
    }
    ~EventLoop() override { mlr_close(tav.handle); }

    int listen_once() {
        journal::clear();
        captured::clear();
        return loop.listen();
    }

    fake_os::state_t &os = fake_os::state();
    toolkit::CTav tav;
    CNetlink channel;
    Loop loop{&tav, &channel, "eth"};
};

TEST_F(EventLoop, WaitsThirtySecondsForThreeDescriptors) {
    os.select.timeout();
    EXPECT_EQ(listen_once(), 0);
    const auto &call = os.select.calls().back();
    EXPECT_EQ(call.reading, (std::vector<int>{store_fd, netlink_fd, exit_fd}));
    EXPECT_EQ(call.nfds, exit_fd + 1);
    EXPECT_TRUE(call.has_timeout);
    EXPECT_EQ(call.seconds, 30);
    EXPECT_EQ(call.microseconds, 0);
    EXPECT_FALSE(call.writes);
    EXPECT_FALSE(call.exceptions);
}

TEST_F(EventLoop, SelectsUpToTheHighestOfTheThreeDescriptors) {
    fake_tav::state().fd = 200;
    os.select.timeout();
    listen_once();
    EXPECT_EQ(os.select.calls().back().nfds, 201);
    fake_libnl::state().fd = 300;
    os.select.timeout();
    listen_once();
    EXPECT_EQ(os.select.calls().back().nfds, 301);
}

TEST_F(EventLoop, AQuietCyclePingsTheWatchdogAndServesNobody) {
    verbosity = 4;
    os.select.timeout();
    EXPECT_EQ(listen_once(), 0);
    EXPECT_EQ(journal::entries(), (entries_t{"log 6 Info: Entering select()...", "select(30)",
                                             "log 6 Info: select() returned.", "watchdog_ping()"}));
}

TEST_F(EventLoop, ItsTwoTracesAreOfLevelFour) {
    for (const char *line : {"Info: Entering select()...", "Info: select() returned."}) {
        expect_logged_at(4, LOG_INFO, line, [this] {
            os.select.timeout();
            loop.listen();
        });
    }
}

TEST_F(EventLoop, AFailedSelectThrowsWithTheErrorNumberAndPingsNobody) {
    for (const int error : {EINTR, EBADF, EINVAL}) {
        for (const std::uint32_t level : {0U, 9U}) {
            verbosity = level;
            os.select.fail(error);
            EXPECT_EQ(thrown<sync_err>([this] { listen_once(); }),
                      "int CSync::listen(): select() returned " + std::to_string(error));
            EXPECT_EQ(journal::count("watchdog_ping()"), 0U);
            EXPECT_EQ(captured::log_count("Info: select() returned."), level == 9 ? 1U : 0U);
        }
    }
}

TEST_F(EventLoop, TheErrorNumberIsThatOfSelectEvenIfTheLogChangesIt) {
    verbosity = 4;
    captured::on_log([] { errno = EPIPE; });
    os.select.fail(EINTR);
    EXPECT_EQ(thrown<sync_err>([this] { listen_once(); }),
              "int CSync::listen(): select() returned 4");
}

// In normal operation; before that its events are not fetched.
TEST_F(EventLoop, AStoreEventIsServedAlone) {
    loop.state = 4;
    os.select.ready({store_fd});
    EXPECT_EQ(listen_once(), 0);
    EXPECT_EQ(journal::entries(), (entries_t{"select(30)", "watchdog_ping()", "events_get()"}));
}

TEST_F(EventLoop, ANetlinkMessageIsServedOneDatagramAtATime) {
    fake_libnl::queue_datagram(fake_libnl::datagram_t().link(RTM_NEWLINK, 2, "veth0"));
    fake_libnl::queue_datagram(fake_libnl::datagram_t().link(RTM_NEWLINK, 3, "veth1"));
    os.select.ready({netlink_fd});
    EXPECT_EQ(listen_once(), 0);
    EXPECT_EQ(journal::entries(), (entries_t{"select(30)", "watchdog_ping()", "nl_recv()"}));
    EXPECT_EQ(fake_libnl::queued(), 1U);
}

TEST_F(EventLoop, AStoreEventGoesBeforeANetlinkMessageOfTheSameCycle) {
    loop.state = 4;
    fake_libnl::queue_datagram(fake_libnl::datagram_t().link(RTM_NEWLINK, 2, "veth0"));
    os.select.ready({store_fd, netlink_fd}).ready({netlink_fd});
    EXPECT_EQ(listen_once(), 0);
    EXPECT_EQ(journal::count("events_get()"), 1U);
    EXPECT_EQ(journal::count("nl_recv()"), 0U);
    EXPECT_EQ(listen_once(), 0);
    EXPECT_EQ(journal::count("events_get()"), 0U);
    EXPECT_EQ(journal::count("nl_recv()"), 1U);
}

TEST_F(EventLoop, TheExitPipeGoesBeforeEverythingAndServesNobodyElse) {
    loop.state = 4;
    for (const int requested : {1, 0}) {
        exit_requested = requested;
        for (const auto &ready : {std::vector<int>{exit_fd},
                                  {exit_fd, store_fd},
                                  {exit_fd, netlink_fd},
                                  {exit_fd, store_fd, netlink_fd}}) {
            os.select.ready(ready);
            EXPECT_EQ(listen_once(), requested);
            EXPECT_EQ(journal::entries(), (entries_t{"select(30)", "watchdog_ping()"}));
        }
    }
}

TEST_F(EventLoop, AnExitRequestWithoutAByteInThePipeDoesNotEndIt) {
    exit_requested = 1;
    os.select.timeout();
    EXPECT_EQ(listen_once(), 0);
}

// The run loop's pause must find the byte too.
TEST_F(EventLoop, TheByteInTheExitPipeStaysThere) {
    const exit_pipe_with_a_byte pipe;
    for (const int requested : {1, 0, 1}) {
        exit_requested = requested;
        os.select.ready({pipe.read_end()});
        EXPECT_EQ(listen_once(), requested);
        EXPECT_EQ(pipe.bytes_left(), 1);
    }
}

TEST_F(EventLoop, TheNetlinkSocketIsServedWithoutAStoreConnection) {
    mlr_client_t *const handle = tav.handle;
    tav.handle = nullptr;
    fake_tav::state().null_client_allowed = true;
    loop.state = 4;
    // In the set, -1 would be the bit of 63.
    for (const int fd : {netlink_fd, 63}) {
        fake_libnl::state().fd = fd;
        fake_libnl::queue_datagram(fake_libnl::datagram_t().link(RTM_NEWLINK, 2, "veth0"));
        os.select.ready({fd});
        EXPECT_EQ(listen_once(), 0);
        ASSERT_FALSE(os.select.calls().empty());
        EXPECT_EQ(os.select.calls().back().reading, (std::vector<int>{fd, exit_fd}));
        EXPECT_EQ(os.select.calls().back().nfds, exit_fd + 1);
        EXPECT_EQ(journal::entries(), (entries_t{"select(30)", "watchdog_ping()", "nl_recv()"}));
    }
    tav.handle = handle;
}

TEST_F(EventLoop, ADescriptorThatTheSetCannotHoldIsAFailureOfTheCycle) {
    struct {
        const char *name;
        int &fd;
    } const descriptors[] = {{"store", fake_tav::state().fd},
                             {"netlink", fake_libnl::state().fd},
                             {"exit pipe", exit_pipe[0]}};
    for (const auto &descriptor : descriptors) {
        const int usual = descriptor.fd;
        for (const int fd : {FD_SETSIZE, FD_SETSIZE + 1, FD_SETSIZE + 64, 2 * FD_SETSIZE}) {
            descriptor.fd = fd;
            EXPECT_EQ(thrown<sync_err>([this] { listen_once(); }),
                      "int CSync::listen(): descriptor " + std::to_string(fd) +
                          " does not fit select()")
                << descriptor.name;
            EXPECT_TRUE(journal::entries().empty()) << descriptor.name << ' ' << fd;
        }
        descriptor.fd = FD_SETSIZE - 1;
        os.select.timeout();
        EXPECT_EQ(listen_once(), 0) << descriptor.name;
        EXPECT_EQ(os.select.calls().back().nfds, FD_SETSIZE) << descriptor.name;
        descriptor.fd = usual;
    }
}

TEST_F(EventLoop, WithoutAnExitPipeTheOthersAreServed) {
    exit_pipe[0] = exit_pipe[1] = 0;
    os.select.ready({0, store_fd});
    loop.state = 4;
    EXPECT_EQ(listen_once(), 0);
    EXPECT_EQ(os.select.calls().back().reading, (std::vector<int>{store_fd, netlink_fd}));
    EXPECT_EQ(journal::entries(), (entries_t{"select(30)", "watchdog_ping()", "events_get()"}));
}

TEST_F(EventLoop, WithoutAnExitPipeTheExitFlagIsLookedAtAfterEachWait) {
    exit_pipe[0] = exit_pipe[1] = 0;
    os.select.timeout([] { exit_requested = 1; });
    EXPECT_EQ(listen_once(), 1);
    EXPECT_EQ(journal::entries(), (entries_t{"select(30)", "watchdog_ping()"}));
}

TEST_F(EventLoop, TheLowestDescriptorIsWaitedForLikeAnyOther) {
    exit_pipe[0] = 0;
    os.select.timeout([] { exit_requested = 1; });
    EXPECT_EQ(listen_once(), 0) << "the byte decides, not the flag";
    os.select.ready({0}, [] { exit_requested = 1; });
    EXPECT_EQ(listen_once(), 1);
    EXPECT_EQ(os.select.calls().back().reading, (std::vector<int>{0, store_fd, netlink_fd}));

    exit_pipe[0] = exit_fd;
    fake_tav::state().fd = 0;
    loop.state = 4;
    os.select.ready({0});
    EXPECT_EQ(listen_once(), 0);
    EXPECT_EQ(journal::entries(), (entries_t{"select(30)", "watchdog_ping()", "events_get()"}));
}

TEST_F(EventLoop, TheWatchdogsAnswersAreIgnored) {
    fake_tav::on_call("watchdog_register").returns(-1).statuses({5});
    fake_tav::on_call("watchdog_ping", 1).returns(-1);
    fake_tav::on_call("watchdog_ping", 2).statuses({5});
    os.select.timeout().timeout().ready({exit_fd}, [] { exit_requested = 1; });
    EXPECT_EQ(loop.run(), 1);
    EXPECT_EQ(journal::count("watchdog_ping()"), 3U);
}

TEST_F(EventLoop, RunRegistersWithTheWatchdogThenDiscoversThenListens) {
    verbosity = 3;
    journal::clear();
    os.select.ready({exit_fd}, [] { exit_requested = 1; });
    EXPECT_EQ(loop.run(), 1);
    const auto &entries = journal::entries();
    ASSERT_GE(entries.size(), 5U);
    EXPECT_EQ(entries[0], "watchdog_register(tandrel, 60, true)");
    EXPECT_EQ(entries[1], "log 6 Info: void CSync::discover(): requesting link state");
    EXPECT_EQ(entries[2].rfind("nl_send_simple(18, 257, ", 0), 0U);
    EXPECT_EQ(entries[3], "select(30)");
    EXPECT_EQ(entries[4], "watchdog_ping()");
}

TEST_F(EventLoop, RunListensUntilTheExitRequestAndFeedsTheWatchdogInEveryCycle) {
    os.select.timeout().timeout().ready({exit_fd}).timeout().ready({exit_fd},
                                                                   [] { exit_requested = 1; });
    EXPECT_EQ(loop.run(), 1);
    EXPECT_EQ(journal::count("select(30)"), 5U);
    EXPECT_EQ(journal::count("watchdog_ping()"), 5U);
    EXPECT_EQ(journal::count("watchdog_register("), 1U);
}

TEST_F(EventLoop, ExceptionsOfDiscoveryAndCyclesLeaveRun) {
    fake_libnl::state().send_simple.then(0);
    EXPECT_THROW(loop.run(), netlink_err);
    os.select.fail(EINTR);
    loop.state = 0;
    EXPECT_THROW(loop.run(), sync_err);
    fake_libnl::queue_recv_result(-5);
    os.select.ready({netlink_fd});
    loop.state = 0;
    EXPECT_THROW(loop.run(), netlink_err);
}

} // namespace
