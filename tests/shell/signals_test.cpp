// Termination signals, faults and the backtrace.
#include "shell/signals.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <iterator>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include "fakes/fake_os.h"
#include "fakes/log_capture.h"

namespace {

using entries_t = std::vector<std::string>;

const int handled[] = {SIGSEGV, SIGILL, SIGFPE, SIGPIPE, SIGHUP, SIGINT, SIGQUIT, SIGTERM};

// The state before any test.
const int exit_requested_at_start = exit_requested;
const std::vector<int> exit_pipe_at_start(std::begin(exit_pipe), std::end(exit_pipe));

class Signals : public DaemonTest {
protected:
    Signals() {
        fake_os::state().pipe.returns(0);
        fake_os::state().sigaction.returns(0);
        fake_os::state().write.returns(1);
        fake_os::state().close.returns(0);
    }
    // The journal's entries for installing (or removing) all handlers.
    static entries_t actions(const std::string &handler) {
        entries_t all;
        for (const int signal : handled) {
            all.push_back("sigaction(" + std::to_string(signal) + ", " + handler + ", 0, empty)");
        }
        return all;
    }
};

TEST_F(Signals, ThePipeIsMadeAndThenTheHandlersInTheirOrderWithoutRestart) {
    register_handlers();
    entries_t wanted = {"pipe()"};
    for (const auto &action : actions("signal_handler")) {
        wanted.push_back(action);
    }
    EXPECT_EQ(journal::entries(), wanted);
    EXPECT_EQ(exit_pipe[0], 80);
    EXPECT_EQ(exit_pipe[1], 81);
    EXPECT_EQ(captured::standard_error(), "");
}

TEST_F(Signals, InitiallyNoExitIsRequestedAndThereIsNoPipe) {
    EXPECT_EQ(exit_requested_at_start, 0);
    EXPECT_EQ(exit_pipe_at_start, (std::vector<int>{0, 0}));
}

TEST_F(Signals, TheHandlersAreInstalledWithoutAPipe) {
    fake_os::state().pipe.now_returns(-1, EMFILE);
    register_handlers();
    EXPECT_EQ(captured::standard_error(),
              "register_handlers: Error: pipe returned errno " + std::to_string(EMFILE) + "\n");
    EXPECT_TRUE(captured::log().empty());
    EXPECT_EQ(journal::matching("sigaction("), actions("signal_handler"));
    EXPECT_EQ(exit_pipe[0], 0);
    EXPECT_EQ(exit_pipe[1], 0);
}

TEST_F(Signals, TheInheritedPipeIsReplacedByANewOne) {
    exit_pipe[0] = 70;
    exit_pipe[1] = 71;
    fake_os::state().close.returns(0);
    renew_exit_pipe();
    EXPECT_EQ(journal::entries(), (entries_t{"pipe()", "close(70)", "close(71)"}));
    EXPECT_EQ(exit_pipe[0], 80);
    EXPECT_EQ(exit_pipe[1], 81);
    EXPECT_EQ(exit_requested, 0);
}

TEST_F(Signals, AnInheritedRequestToExitIsKept) {
    exit_requested = 1;
    fake_os::state().close.returns(0);
    renew_exit_pipe();
    EXPECT_EQ(exit_requested, 1);
}

TEST_F(Signals, WithoutANewPipeTheInheritedOneIsNotWaitedForEither) {
    exit_pipe[0] = 70;
    exit_pipe[1] = 71;
    fake_os::state().pipe.now_returns(-1, EMFILE);
    fake_os::state().close.returns(0);
    renew_exit_pipe();
    EXPECT_EQ(captured::standard_error(),
              "renew_exit_pipe: Error: pipe returned errno " + std::to_string(EMFILE) + "\n");
    EXPECT_EQ(journal::entries(), (entries_t{"pipe()", "close(70)", "close(71)"}));
    EXPECT_EQ(exit_descriptor(), -1);
}

TEST_F(Signals, WithoutAnInheritedPipeNothingElseIsClosed) {
    exit_pipe[0] = exit_pipe[1] = 0;
    renew_exit_pipe();
    EXPECT_EQ(journal::entries(), entries_t{"pipe()"});
    EXPECT_EQ(exit_pipe[0], 80);
}

TEST_F(Signals, ThePipeIsWaitedForIfThereIsOne) {
    const struct {
        int ends[2];
        int expected;
    } cases[] = {{{0, 0}, -1}, {{0, 5}, 0}, {{5, 0}, 5}, {{1, 2}, 1}, {{7, 8}, 7}};
    for (const auto &one : cases) {
        exit_pipe[0] = one.ends[0];
        exit_pipe[1] = one.ends[1];
        EXPECT_EQ(exit_descriptor(), one.expected);
    }
}

TEST_F(Signals, DefaultsAreRestoredInTheSameOrderAndThePipeIsClosedReadEndFirst) {
    register_handlers();
    journal::clear();
    unregister_handlers();
    entries_t wanted = actions("default");
    wanted.emplace_back("close(80)");
    wanted.emplace_back("close(81)");
    EXPECT_EQ(journal::entries(), wanted);
}

TEST_F(Signals, TerminationSignalsRequestTheExitAndWriteOneZeroByte) {
    register_handlers();
    for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM}) {
        exit_requested = 0;
        journal::clear();
        signal_handler(signal);
        EXPECT_EQ(exit_requested, 1) << signal;
        EXPECT_EQ(journal::entries(), entries_t{"write(81, 0)"}) << signal;
    }
    EXPECT_TRUE(captured::log().empty());
    EXPECT_EQ(captured::standard_error(), "");
}

TEST_F(Signals, TheInterruptedCodesErrorNumberIsPreserved) {
    register_handlers();
    fake_os::state().write.now_returns(-1, EAGAIN);
    for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM}) {
        errno = EINTR;
        signal_handler(signal);
        EXPECT_EQ(errno, EINTR) << signal;
    }
    EXPECT_EQ(journal::count("write("), 4U);
}

TEST_F(Signals, TwoOfThemWriteTwoBytes) {
    register_handlers();
    signal_handler(SIGTERM);
    signal_handler(SIGTERM);
    EXPECT_EQ(exit_requested, 1);
    EXPECT_EQ(journal::count("write(81, 0)"), 2U);
}

TEST_F(Signals, ABrokenPipeAndAnyOtherSignalHaveNoEffect) {
    register_handlers();
    journal::clear();
    for (const int signal : {SIGPIPE, SIGUSR1, SIGCHLD, SIGALRM, SIGABRT, SIGBUS, 0}) {
        signal_handler(signal);
    }
    EXPECT_EQ(exit_requested, 0);
    EXPECT_TRUE(journal::entries().empty());
    EXPECT_EQ(captured::standard_error(), "");
}

// With a real signal and a real pipe: the byte stays in the pipe for every wait.
TEST_F(Signals, ASignalMakesTheExitPipeReadable) {
    auto &os = fake_os::state();
    os.pipe.clear();
    os.sigaction.clear();
    os.write.clear();
    os.close.clear();
    register_handlers();
    ASSERT_EQ(raise(SIGPIPE), 0);
    EXPECT_EQ(exit_requested, 0);
    ASSERT_EQ(raise(SIGTERM), 0);
    EXPECT_EQ(exit_requested, 1);
    for (int wait = 0; wait < 2; ++wait) {
        fd_set reads;
        FD_ZERO(&reads);
        FD_SET(exit_pipe[0], &reads);
        timeval at_once{};
        EXPECT_EQ(select(exit_pipe[0] + 1, &reads, nullptr, nullptr, &at_once), 1);
    }
    unregister_handlers();
    struct sigaction now {};
    ASSERT_EQ(sigaction(SIGTERM, nullptr, &now), 0);
    EXPECT_EQ(now.sa_handler, SIG_DFL);
}

// Faults.

class Backtrace : public DaemonTest {
protected:
    static void arm(std::vector<std::string> frames) {
        fake_os::state().backtrace_armed = true;
        fake_os::state().frames = std::move(frames);
    }
    static fake_os::ending_t print() {
        return fake_os::ending_of([]() -> int { print_backtrace(); });
    }
    static fake_os::ending_t ending_on(int signal) {
        return fake_os::ending_of([signal] {
            signal_handler(signal);
            return 0;
        });
    }
    // How one frame line is printed on standard error; the system log must have the same.
    static std::string shown(const std::string &frame) {
        captured::clear();
        arm({frame});
        EXPECT_EQ(print().how, "abort");
        const std::string text = captured::standard_error();
        const std::string head = "Backtrace:\n";
        EXPECT_EQ(text.rfind(head, 0), 0U) << text;
        const std::string line = text.substr(head.size());
        EXPECT_EQ(captured::log(),
                  (std::vector<log_line_t>{{LOG_CRIT, "Backtrace:"}, {LOG_CRIT, line}}));
        return line;
    }
};

TEST_F(Backtrace, FaultsAreNamedOnStandardErrorAndInTheSystemLogAndEndInAbort) {
    const struct {
        int signal;
        const char *text;
    } faults[] = {
        {SIGILL, "Illegal Instruction"}, {SIGFPE, "FP Exception"}, {SIGSEGV, "Segmentation Fault"}};
    for (const auto &fault : faults) {
        captured::clear();
        arm({"./tandrel(_ZN5CSync6listenEv+0x1f) [0x55]"});
        EXPECT_EQ(ending_on(fault.signal).how, "abort");
        EXPECT_EQ(captured::standard_error(),
                  std::string(fault.text) + "\nBacktrace:\n[0]  CSync::listen()\n");
        EXPECT_EQ(captured::log(), (std::vector<log_line_t>{{LOG_CRIT, fault.text},
                                                            {LOG_CRIT, "Backtrace:"},
                                                            {LOG_CRIT, "[0]  CSync::listen()\n"}}));
        EXPECT_EQ(exit_requested, 0);
    }
}

// The interrupted code may hold a lock that the report waits for.
TEST_F(Backtrace, AFaultsReportIsAbortedAfterTenSeconds) {
    for (const int signal : {SIGILL, SIGFPE, SIGSEGV}) {
        fake_os::state().sigaction.returns(0);
        journal::clear();
        arm({"[0x7ffd]"});
        ending_on(signal);
        ASSERT_GE(journal::entries().size(), 3U);
        EXPECT_EQ(journal::entries()[0], "sigaction(14, another, 0, empty)");
        EXPECT_EQ(journal::entries()[1], "alarm(10)");
        EXPECT_EQ(journal::find("log 2 "), 2U);
    }

    fake_os::state().sigaction.clear();
    arm({"[0x7ffd]"});
    ending_on(SIGSEGV);
    struct sigaction in_force {};
    ASSERT_EQ(sigaction(SIGALRM, nullptr, &in_force), 0);
    ASSERT_EQ(::signal(SIGALRM, SIG_DFL), in_force.sa_handler);
    ASSERT_NE(in_force.sa_handler, SIG_DFL);
    EXPECT_EQ(fake_os::ending_of([&in_force] {
                  in_force.sa_handler(SIGALRM);
                  return 0;
              }).how,
              "abort");
}

// The system log may be what fails or hangs.
TEST_F(Backtrace, EveryTextIsOnStandardErrorBeforeItIsInTheSystemLog) {
    for (const int signal : {SIGILL, SIGFPE, SIGSEGV}) {
        captured::clear();
        arm({"./tandrel(_ZN5CSync6listenEv+0x1f) [0x55]", "[0x7ffd]"});
        entries_t at_each_call;
        captured::on_log([&at_each_call] { at_each_call.push_back(captured::standard_error()); });
        ending_on(signal);
        captured::on_log(nullptr);
        const auto texts = captured::log_texts();
        ASSERT_EQ(texts.size(), 4U);
        ASSERT_EQ(at_each_call.size(), 4U);
        std::string so_far;
        for (std::size_t i = 0; i < texts.size(); ++i) {
            so_far += texts[i] + (texts[i].back() == '\n' ? "" : "\n");
            EXPECT_EQ(at_each_call[i], so_far) << signal;
        }
    }
}

TEST_F(Backtrace, GoesThroughItsStepsInOrder) {
    arm({"./tandrel(_ZN5CSync6listenEv+0x1f) [0x55]", "[0x7ffd]"});
    EXPECT_EQ(print().how, "abort");
    EXPECT_EQ(journal::entries(),
              (entries_t{"backtrace(512)", "backtrace_symbols(2)",
                         "log 2 Backtrace:", "log 2 [0]  CSync::listen()\n",
                         "log 2 [1]  [0x7ffd]\n", "closelog()", "free(watched)", "abort()"}));
}

TEST_F(Backtrace, FramesAreNumberedFromZero) {
    arm({"a(main+0x1)", "b(_ZN5CSync8discoverEv+0x1)", "[0x1]", "d(_ZN5CSync6listenEv+0x2)"});
    print();
    EXPECT_EQ(captured::standard_error(), "Backtrace:\n"
                                          "[0]  a(main+0x1)\n"
                                          "[1]  CSync::discover()\n"
                                          "[2]  [0x1]\n"
                                          "[3]  CSync::listen()\n");
}

TEST_F(Backtrace, AFrameIsTheDemangledNameOrTheWholeLine) {
    const struct {
        const char *frame, *printed;
    } rows[] = {
        // Without a parenthesis there is no name.
        {"[0x7ffd1234]", "[0x7ffd1234]"},
        {"", ""},
        // A mangled name is printed demangled and alone.
        {"/usr/sbin/tandrel(_ZN5CSync6listenEv+0x1f) [0x55]", "CSync::listen()"},
        {"x(_ZN5CSync11str_to_addrERKSsb+0x0) [0x1]",
         "CSync::str_to_addr(std::string const&, bool)"},
        // It ends at the first plus or parenthesis; without either the whole line is the name.
        {"x(_ZN5CSync3runEv) [0x1]", "CSync::run()"},
        {"x(_ZN5CSync3runEv)+0x1", "CSync::run()"},
        {"x(_ZN5CSync3runEv+)", "CSync::run()"},
        {"x(_ZN5CSync3runEv", "x(_ZN5CSync3runEv"},
        {"_ZN5CSync3runEv", "CSync::run()"},
        // What cannot be demangled is printed unaltered.
        {"./tandrel(main+0x10) [0x1]", "./tandrel(main+0x10) [0x1]"},
        {"/lib/libc.so.6(+0x3bf90) [0x7f]", "/lib/libc.so.6(+0x3bf90) [0x7f]"},
        {"x() [0x1]", "x() [0x1]"},
        {"x(_Z) [0x1]", "x(_Z) [0x1]"},
        {"x(_ZN5CSync3runEv~+0x1) [0x1]", "x(_ZN5CSync3runEv~+0x1) [0x1]"},
        {"/opt/100%s%n(main+0x1)", "/opt/100%s%n(main+0x1)"},
    };
    for (const auto &one : rows) {
        EXPECT_EQ(shown(one.frame), std::string("[0]  ") + one.printed + "\n");
    }
}

// Nothing flushes the buffers of a process that aborts.
TEST_F(Backtrace, IsWrittenOutBeforeTheAbort) {
    std::array<char, 65536> buffer{};
    ASSERT_EQ(std::setvbuf(stderr, buffer.data(), _IOFBF, buffer.size()), 0);
    arm({"[0x7ffd]"});
    EXPECT_EQ(print().how, "abort");
    struct stat written {};
    EXPECT_EQ(fstat(STDERR_FILENO, &written), 0);
    EXPECT_EQ(std::setvbuf(stderr, nullptr, _IONBF, 0), 0);
    EXPECT_EQ(captured::standard_error(), "Backtrace:\n[0]  [0x7ffd]\n");
    EXPECT_EQ(written.st_size, static_cast<off_t>(captured::standard_error().size()));
}

TEST_F(Backtrace, WithoutSymbolsThereIsOnlyTheAbort) {
    arm({"x"});
    fake_os::state().no_symbols = true;
    EXPECT_EQ(print().how, "abort");
    EXPECT_EQ(captured::standard_error(), "");
    EXPECT_EQ(journal::entries(), (entries_t{"backtrace(512)", "backtrace_symbols(1)", "abort()"}));
}

TEST_F(Backtrace, WithoutFramesThereIsOnlyItsHead) {
    arm({});
    print();
    EXPECT_EQ(captured::standard_error(), "Backtrace:\n");
    EXPECT_EQ(captured::log().size(), 1U);
}

} // namespace
