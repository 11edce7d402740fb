// The run loop: connecting, pausing, rebuilding and ending.
#include "shell/run_loop.h"

#include <cerrno>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/select.h>
#include <syslog.h>

#include "fakes/fake_libnl.h"
#include "fakes/fake_os.h"
#include "fakes/fake_tav.h"
#include "fakes/log_capture.h"
#include "shell/exit_pipe_with_a_byte.h"
#include "shell/signals.h"

namespace {

using entries_t = std::vector<std::string>;

const char *const registration =
    "event_register(/Software/System Settings/Network/Interface, 1, false)";

void request_exit() {
    exit_requested = 1;
}

class RunLoop : public DaemonTest {
protected:
    RunLoop() {
        exit_pipe[0] = 80;
        os.select.arm();
        exit_pipe[1] = 81;
        os.setsockopt.returns(0);
    }

    // Steps of the script, one for each select. A cycle is one of the engine, a pause one of the
    // run loop.
    void pause() { os.select.timeout(); }
    void pause_with_signal() { os.select.ready({80}, request_exit); }
    void cycle() { os.select.timeout(); }
    void cycle_with_signal() { os.select.ready({80}, request_exit); }

    // Runs to the end of the script, which must be there exactly.
    void run() {
        EXPECT_EQ(run_daemon(), 0);
        EXPECT_EQ(os.select.left(), 0U);
        expect_all_released();
    }
    static void expect_all_released() {
        EXPECT_EQ(fake_libnl::state().sockets_freed, fake_libnl::state().sockets_allocated);
        EXPECT_EQ(fake_tav::state().clients_closed, fake_tav::state().clients_opened);
    }
    // The journal without calls that do not concern this file.
    static entries_t story() {
        entries_t entries;
        for (const auto &entry : journal::entries()) {
            for (const char *kept : {"log ", "mlr_", "event_register(", "nl_socket_alloc(",
                                     "nl_socket_free(", "watchdog_register(", "select("}) {
                if (entry.rfind(kept, 0) == 0) {
                    entries.push_back(entry);
                }
            }
        }
        return entries;
    }

    fake_os::state_t &os = fake_os::state();
};

TEST_F(RunLoop, StartsAtOnceAndEndsAfterOnePauseThatTheSignalShortens) {
    cycle_with_signal();
    pause();
    verbosity = 1;
    run();
    EXPECT_EQ(story(), (entries_t{"log 6 Info: Starting tandrel daemon", "mlr_init()", registration,
                                  "nl_socket_alloc()", "watchdog_register(tandrel, 60, true)",
                                  "select(30)", "mlr_close()", "select(10)", "nl_socket_free()",
                                  "log 6 Info: Caught user-initiated exit signal...",
                                  "log 6 Info: Exiting tandrel daemon"}));
}

TEST_F(RunLoop, PausesTenSecondsOnTheReadEndOfTheExitPipe) {
    cycle_with_signal();
    pause();
    run();
    const auto &call = os.select.calls().back();
    EXPECT_EQ(call.reading, std::vector<int>{80});
    EXPECT_EQ(call.nfds, 81);
    EXPECT_TRUE(call.has_timeout);
    EXPECT_EQ(call.seconds, 10);
    EXPECT_EQ(call.microseconds, 0);
    EXPECT_FALSE(call.writes);
    EXPECT_FALSE(call.exceptions);
}

// The next wait must find it readable too.
TEST_F(RunLoop, ThePauseLeavesTheByteInTheExitPipe) {
    const exit_pipe_with_a_byte pipe;
    fake_tav::state().failing_inits = 3;
    os.select.ready({pipe.read_end()}).ready({pipe.read_end()});
    os.select.ready({pipe.read_end()}, request_exit);
    run();
    EXPECT_EQ(pipe.bytes_left(), 1);
    exit_requested = 0;
    os.select.ready({pipe.read_end()}, request_exit); // the engine's
    os.select.ready({pipe.read_end()});
    run();
    EXPECT_EQ(pipe.bytes_left(), 1);
}

// The wait of a pause with an exit pipe of these ends.
fake_os::select_call_t pause_with(int read_end, int write_end) {
    exit_requested = 0;
    exit_pipe[0] = read_end;
    exit_pipe[1] = write_end;
    fake_tav::state().failing_inits = 1;
    fake_os::state().select.timeout([] { exit_requested = 1; });
    EXPECT_EQ(run_daemon(), 0);
    return fake_os::state().select.calls().back();
}

TEST_F(RunLoop, AnExitPipeThatTheSetCannotHoldIsNotWaitedForInAPause) {
    for (const int fd : {FD_SETSIZE, FD_SETSIZE + 1, FD_SETSIZE + 64, 2 * FD_SETSIZE}) {
        const auto call = pause_with(fd, 81);
        EXPECT_TRUE(call.reading.empty()) << fd;
        EXPECT_EQ(call.nfds, 0) << fd; // a negative number would fail at once, without the pause
        EXPECT_TRUE(call.has_timeout);
        EXPECT_EQ(call.seconds, 10);
    }
}

TEST_F(RunLoop, WithoutAnExitPipeAPauseIsStillWaitedOut) {
    const auto call = pause_with(0, 0);
    EXPECT_TRUE(call.reading.empty());
    EXPECT_EQ(call.seconds, 10);
}

TEST_F(RunLoop, AnyDescriptorThatTheSetCanHoldIsWaitedForInAPause) {
    for (const int fd : {0, FD_SETSIZE - 1}) {
        const auto call = pause_with(fd, 81);
        EXPECT_EQ(call.reading, std::vector<int>{fd});
        EXPECT_EQ(call.nfds, fd + 1);
    }
}

TEST_F(RunLoop, FirstAndLastMessageAreAlwaysLogged) {
    for (const char *line : {"Info: Starting tandrel daemon", "Info: Exiting tandrel daemon"}) {
        expect_logged_at(0, LOG_INFO, line, [] {
            exit_requested = 1;
            EXPECT_EQ(run_daemon(), 0);
        });
    }
}

TEST_F(RunLoop, TheSignalIsReportedAtLevelOne) {
    expect_info_at(1, "Caught user-initiated exit signal...", [] {
        exit_requested = 1;
        EXPECT_EQ(run_daemon(), 0);
    });
}

TEST_F(RunLoop, AnExitRequestBeforeTheFirstPassEndsItWithoutPauseOrConnection) {
    exit_requested = 1;
    run();
    EXPECT_EQ(story(), (entries_t{"log 6 Info: Starting tandrel daemon",
                                  "log 6 Info: Exiting tandrel daemon"}));
}

// The store cannot be reached.

TEST_F(RunLoop, AnUnreachableStoreIsReportedOnceAndRetriedEveryTenSeconds) {
    fake_tav::state().failing_inits = 4;
    for (int i = 0; i < 4; ++i) {
        pause();
    }
    cycle_with_signal();
    pause();
    verbosity = 1;
    run();
    EXPECT_EQ(story(), (entries_t{"log 6 Info: Starting tandrel daemon",
                                  "mlr_init()",
                                  "log 3 Error: Can't connect to TAV, sleeping",
                                  "select(10)",
                                  "mlr_init()",
                                  "select(10)",
                                  "mlr_init()",
                                  "select(10)",
                                  "mlr_init()",
                                  "select(10)",
                                  "mlr_init()",
                                  registration,
                                  "nl_socket_alloc()",
                                  "watchdog_register(tandrel, 60, true)",
                                  "select(30)",
                                  "mlr_close()",
                                  "select(10)",
                                  "nl_socket_free()",
                                  "log 6 Info: Caught user-initiated exit signal...",
                                  "log 6 Info: Exiting tandrel daemon"}));
}

TEST_F(RunLoop, AnUnreachableStoreIsReportedAtLevelOne) {
    expect_logged_at(1, LOG_ERR, "Error: Can't connect to TAV, sleeping", [this] {
        exit_requested = 0;
        fake_tav::state().failing_inits = 1;
        pause_with_signal();
        EXPECT_EQ(run_daemon(), 0);
    });
}

TEST_F(RunLoop, ASignalDuringThePauseEndsItWithoutAnotherAttempt) {
    fake_tav::state().failing_inits = 1;
    os.select.fail(EINTR, request_exit);
    run();
    EXPECT_EQ(journal::count("mlr_init()"), 1U);
    EXPECT_EQ(captured::log_texts().back(), "Info: Exiting tandrel daemon");
}

// The store refuses the registration.

struct refusal_t {
    const char *name;
    void (*arm)(unsigned call);
};

void PrintTo(const refusal_t &param, std::ostream *out) {
    *out << param.name;
}

const refusal_t refusals[] = {
    {"NegativeResult",
     [](unsigned call) { fake_tav::on_call("event_register", call).returns(-1); }},
    {"PositiveResult", [](unsigned call) { fake_tav::on_call("event_register", call).returns(1); }},
    {"ResultAlthoughTheStatusIsGood",
     [](unsigned call) { fake_tav::on_call("event_register", call).returns(-1).statuses({1}); }},
    {"StatusAbsent",
     [](unsigned call) { fake_tav::on_call("event_register", call).statuses({2}); }},
    {"StatusZero", [](unsigned call) { fake_tav::on_call("event_register", call).statuses({0}); }},
};

class RunLoopRefused : public RunLoop, public ::testing::WithParamInterface<refusal_t> {};

TEST_P(RunLoopRefused, IsReportedOnceAndTriedAgainOnANewConnectionEveryTenSeconds) {
    for (const unsigned call : {1U, 2U, 3U}) {
        GetParam().arm(call);
    }
    pause();
    pause();
    pause_with_signal();
    verbosity = 1;
    run();
    EXPECT_EQ(story(), (entries_t{"log 6 Info: Starting tandrel daemon", "mlr_init()", registration,
                                  "log 3 Error: Can't register for settings", "mlr_close()",
                                  "select(10)", "mlr_init()", registration, "mlr_close()",
                                  "select(10)", "mlr_init()", registration, "mlr_close()",
                                  "select(10)", "log 6 Info: Caught user-initiated exit signal...",
                                  "log 6 Info: Exiting tandrel daemon"}));
}

INSTANTIATE_TEST_SUITE_P(All, RunLoopRefused, ::testing::ValuesIn(refusals),
                         [](const auto &test) { return std::string(test.param.name); });

TEST_F(RunLoop, ARefusedRegistrationIsReportedAtLevelOne) {
    expect_logged_at(1, LOG_ERR, "Error: Can't register for settings", [this] {
        exit_requested = 0;
        fake_tav::on_call("event_register").statuses({5});
        pause_with_signal();
        EXPECT_EQ(run_daemon(), 0);
    });
}

// The two flags.

TEST_F(RunLoop, ARefusedRegistrationLetsTheNextConnectFailureBeReportedAgain) {
    verbosity = 1;
    int inits = 0;
    os.before_mlr_init = [&inits] {
        ++inits;
        fake_tav::state().failing_inits = inits == 1 || inits == 3 || inits == 4 ? 1 : 0;
    };
    fake_tav::on_call("event_register", 1).statuses({2}); // the second pass
    pause();                                              // after the first failed connect
    pause();                                              // after the refusal
    pause();                                              // after the second failed connect
    pause_with_signal();                                  // after the third, which is silent
    run();
    EXPECT_EQ(captured::log_count("Error: Can't connect to TAV, sleeping"), 2U);
    EXPECT_EQ(captured::log_count("Error: Can't register for settings"), 1U);
}

TEST_F(RunLoop, AFailedConnectDoesNotLetTheNextRefusalBeReportedAgain) {
    verbosity = 1;
    int inits = 0;
    os.before_mlr_init = [&inits] { fake_tav::state().failing_inits = ++inits == 2 ? 1 : 0; };
    fake_tav::on_call("event_register", 1).statuses({2});
    fake_tav::on_call("event_register", 2).statuses({2});
    pause();             // refused
    pause();             // no connection
    pause_with_signal(); // refused again
    run();
    EXPECT_EQ(captured::log_count("Error: Can't register for settings"), 1U);
    EXPECT_EQ(captured::log_count("Error: Can't connect to TAV, sleeping"), 1U);
}

struct engine_failure_t {
    const char *name;
    void (*arm)();
};

void PrintTo(const engine_failure_t &param, std::ostream *out) {
    *out << param.name;
}

// Each for the first engine alone.
const engine_failure_t engine_failures[] = {
    {"OfItsSelect", [] { fake_os::state().select.timeout().fail(EBADF); }},
    {"OfNetlinkInTheChannel", [] { fake_libnl::state().connect.then(-1); }},
    {"OfNetlinkInTheEngine", [] { fake_libnl::state().send_simple.then(0); }},
    {"OfMemory", [] { fake_libnl::state().failing_socket_allocs = 1; }},
    {"OfAnyStandardKind",
     [] {
         fake_tav::on_call("watchdog_register", 1).runs([] { throw std::logic_error("text"); });
     }},
};

class RunLoopFailure : public RunLoop, public ::testing::WithParamInterface<engine_failure_t> {};

TEST_P(RunLoopFailure, ClearsBothFlags) {
    verbosity = 1;
    int inits = 0;
    os.before_mlr_init = [&inits] {
        ++inits;
        fake_tav::state().failing_inits = inits == 2 || inits == 4 ? 1 : 0;
    };
    fake_tav::on_call("event_register", 1).statuses({2});
    pause();          // pass 1: refused
    pause();          // pass 2: no connection
    GetParam().arm(); // pass 3: the engine fails
    pause();
    pause(); // pass 4: no connection, reported again
    fake_tav::on_call("event_register", 3).statuses({2});
    pause_with_signal(); // pass 5: refused, reported again
    run();
    EXPECT_EQ(captured::log_count("Error: Can't register for settings"), 2U);
    EXPECT_EQ(captured::log_count("Error: Can't connect to TAV, sleeping"), 2U);
}

INSTANTIATE_TEST_SUITE_P(All, RunLoopFailure, ::testing::ValuesIn(engine_failures),
                         [](const auto &test) { return std::string(test.param.name); });

// Failures of channel and engine.

TEST_F(RunLoop, EveryEngineGetsAFreshConnectionAndAFreshChannelAfterThePause) {
    verbosity = 2;
    fake_libnl::state().send_simple.then(0);
    pause();
    cycle_with_signal();
    pause();
    run();
    EXPECT_EQ(fake_libnl::state().sockets_allocated, 2U);
    EXPECT_EQ(fake_tav::state().clients_opened, 2U);
    const std::size_t caught = journal::find("log 3 Error: Caught exception: nl_send_simple");
    ASSERT_NE(caught, journal::none);
    const std::size_t closed = journal::find("mlr_close()", caught);
    const std::size_t paused = journal::find("select(10)", closed);
    const std::size_t freed = journal::find("nl_socket_free()");
    EXPECT_LT(closed, paused);
    EXPECT_LT(paused, freed);
    EXPECT_LT(freed, journal::find("mlr_init()", paused));
}

TEST_F(RunLoop, NetlinkFailuresAreReportedAtLevelTwoWithTheirText) {
    expect_logged_at(2, LOG_ERR, "Error: Caught exception: nl_send_simple", [this] {
        exit_requested = 0;
        fake_libnl::state().send_simple.then(-1);
        pause_with_signal();
        EXPECT_EQ(run_daemon(), 0);
    });
}

TEST_F(RunLoop, OtherFailuresOfTheEngineAreReportedAtLevelTwoWithoutTheirText) {
    expect_logged_at(2, LOG_ERR, "Error: Caught exception", [this] {
        exit_requested = 0;
        os.select.fail(EBADF); // a sync_err
        pause_with_signal();
        EXPECT_EQ(run_daemon(), 0);
    });
    EXPECT_EQ(captured::log_count("Error: Caught exception: "), 0U);
}

TEST_F(RunLoop, AnyStandardExceptionOfTheEngineLeadsToANewOne) {
    verbosity = 2;
    fake_tav::on_call("watchdog_register", 1).runs([] { throw std::logic_error("text"); });
    pause();
    cycle_with_signal();
    pause();
    run();
    EXPECT_EQ(captured::log_count("Error: Caught exception"), 1U);
    EXPECT_EQ(journal::count("watchdog_register("), 2U);
}

TEST_F(RunLoop, ASignalDuringTheEnginesSelectIsCaughtAndThenHonoured) {
    verbosity = 2;
    os.select.fail(EINTR, request_exit);
    pause();
    run();
    const auto texts = captured::log_texts();
    ASSERT_GE(texts.size(), 3U);
    EXPECT_EQ(entries_t(texts.end() - 3, texts.end()),
              (entries_t{"Error: Caught exception", "Info: Caught user-initiated exit signal...",
                         "Info: Exiting tandrel daemon"}));
}

// The run loop does not catch exceptions that are not a std::exception.

TEST_F(RunLoop, OtherThrownObjectsLeaveItAfterBothConnectionsWereReleased) {
    verbosity = 2;
    fake_tav::on_call("watchdog_register", 1).runs([] { throw 42; });
    EXPECT_THROW(run_daemon(), int);
    expect_all_released();
    EXPECT_LT(journal::find("nl_socket_free()"), journal::find("mlr_close()"));
    EXPECT_EQ(journal::count("log 3 "), 0U);
    EXPECT_EQ(journal::count("select(10)"), 0U);
    EXPECT_EQ(captured::log_count("Info: Exiting tandrel daemon"), 0U);
}

TEST_F(RunLoop, ExceptionsOfTheRegistrationLeaveItAfterTheConnectionWasClosed) {
    verbosity = 2;
    fake_tav::on_call("event_register").runs([] { throw std::runtime_error("text"); });
    EXPECT_THROW(run_daemon(), std::runtime_error);
    expect_all_released();
    EXPECT_EQ(journal::count("log 3 "), 0U);
}

TEST_F(RunLoop, ExceptionsOfALaterRegistrationReleaseTheChannelToo) {
    fake_libnl::state().send_simple.then(0);
    pause();
    fake_tav::on_call("event_register", 2).runs([] { throw std::runtime_error("text"); });
    EXPECT_THROW(run_daemon(), std::runtime_error);
    expect_all_released();
}

TEST_F(RunLoop, ExceptionsOfTheConnectLeaveIt) {
    verbosity = 2;
    os.before_mlr_init = [] { throw std::runtime_error("text"); };
    EXPECT_THROW(run_daemon(), std::runtime_error);
    expect_all_released();
    EXPECT_EQ(journal::count("log 3 "), 0U);
}

// The engine's arguments.

TEST_F(RunLoop, TheEngineTracksTheInterfacesOfTheCommandLine) {
    verbosity = 3;
    interface_string = "wlan";
    fake_libnl::queue_datagram(fake_libnl::datagram_t().link(16, 2, "eth0").link(16, 3, "wlan0"));
    os.select.ready({fake_libnl::state().fd});
    cycle_with_signal();
    pause();
    run();
    EXPECT_EQ(captured::log_count("Info: Skipping update for link 'eth0'"), 1U);
    EXPECT_EQ(captured::log_count("Info: Adding new link: 'wlan0' (3)"), 1U);
}

TEST_F(RunLoop, ANewEngineStartsANewDiscovery) {
    verbosity = 3;
    cycle();
    os.select.fail(EBADF);
    pause();
    cycle_with_signal();
    pause();
    run();
    EXPECT_EQ(captured::log_count("Info: void CSync::discover(): requesting link state"), 2U);
    ASSERT_EQ(fake_libnl::state().requests.size(), 2U);
    EXPECT_EQ(fake_libnl::state().requests[1].type, 18);
}

} // namespace
