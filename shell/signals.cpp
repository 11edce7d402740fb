#include "shell/signals.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cxxabi.h>
#include <execinfo.h>
#include <memory>
#include <syslog.h>
#include <unistd.h>

volatile std::sig_atomic_t exit_requested = 0;
int exit_pipe[2] = {0, 0};

namespace {

constexpr int handled_signals[] = {SIGSEGV, SIGILL, SIGFPE,  SIGPIPE,
                                   SIGHUP,  SIGINT, SIGQUIT, SIGTERM};
constexpr int max_frames = 512;
constexpr unsigned int fault_seconds = 10;

void install(void (*handler)(int)) {
    // No SA_RESTART: a signal must end the select that it interrupts.
    struct sigaction action {};
    action.sa_handler = handler;
    for (const int signal : handled_signals) {
        sigaction(signal, &action, nullptr);
    }
}

// Both descriptors are 0 if no pipe can be created.
void make_exit_pipe(const char *caller) {
    int fresh[2] = {0, 0};
    if (pipe(fresh) != 0) {
        std::fprintf(stderr, "%s: Error: pipe returned errno %d\n", caller, errno);
    }
    exit_pipe[0] = fresh[0];
    exit_pipe[1] = fresh[1];
}

// The interrupted code may hold the lock of the system log or of standard error, which the reports
// of a fault wait for. The alarm ends the process even then.
void abort_unless_done_in_time() {
    struct sigaction action {};
    action.sa_handler = [](int) { std::abort(); };
    sigaction(SIGALRM, &action, nullptr);
    alarm(fault_seconds);
}

struct free_deleter {
    void operator()(char *text) const { std::free(text); }
};

// The function's name in a line of backtrace_symbols(3), "file(name+offset) [address]", demangled;
// null when there is none or it is not a C++ name. `line` is unchanged on return.
std::unique_ptr<char, free_deleter> demangled_name(char *line) {
    int status = 0;
    char *open = std::strchr(line, '(');
    char *end = open != nullptr ? std::strpbrk(open + 1, "+)") : nullptr;
    if (end == nullptr) {
        return std::unique_ptr<char, free_deleter>(
            abi::__cxa_demangle(line, nullptr, nullptr, &status));
    }
    const char remembered = *end;
    *end = '\0';
    std::unique_ptr<char, free_deleter> name(
        abi::__cxa_demangle(open + 1, nullptr, nullptr, &status));
    *end = remembered;
    return name;
}

} // namespace

void register_handlers() {
    make_exit_pipe("register_handlers");
    install(signal_handler);
}

void renew_exit_pipe() {
    const int inherited[2] = {exit_pipe[0], exit_pipe[1]};
    const bool had_pipe = exit_descriptor() != -1;
    make_exit_pipe("renew_exit_pipe");
    if (had_pipe) {
        close(inherited[0]);
        close(inherited[1]);
    }
}

int exit_descriptor() {
    return exit_pipe[0] == 0 && exit_pipe[1] == 0 ? -1 : exit_pipe[0];
}

void unregister_handlers() {
    install(SIG_DFL);
    close(exit_pipe[0]);
    close(exit_pipe[1]);
}

void signal_handler(int signal) {
    switch (signal) {
    case SIGHUP:
    case SIGINT:
    case SIGQUIT:
    case SIGTERM: {
        // The interrupted code may be about to look at errno.
        const int interrupted_errno = errno;
        exit_requested = 1;
        const char byte = 0;
        // A pipe holds thousands of these bytes, and the first one ends the daemon. If the write
        // fails, the flag is set all the same.
        [[maybe_unused]] const ssize_t written = write(exit_pipe[1], &byte, 1);
        errno = interrupted_errno;
        return;
    }
    case SIGILL:
        abort_unless_done_in_time();
        std::fputs("Illegal Instruction\n", stderr);
        syslog(LOG_CRIT, "Illegal Instruction");
        print_backtrace();
    case SIGFPE:
        abort_unless_done_in_time();
        std::fputs("FP Exception\n", stderr);
        syslog(LOG_CRIT, "FP Exception");
        print_backtrace();
    case SIGSEGV:
        abort_unless_done_in_time();
        std::fputs("Segmentation Fault\n", stderr);
        syslog(LOG_CRIT, "Segmentation Fault");
        print_backtrace();
    default:
        return; // SIGPIPE: a write to a closed socket reports EPIPE instead
    }
}

// Neither this nor what it calls is safe inside a signal handler; the process ends anyway.
void print_backtrace() {
    void *frames[max_frames];
    const int count = backtrace(frames, max_frames);
    char **lines = backtrace_symbols(frames, count);
    if (lines != nullptr) {
        std::fputs("Backtrace:\n", stderr);
        syslog(LOG_CRIT, "Backtrace:");
        for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i) {
            const auto name = demangled_name(lines[i]);
            const char *text = name ? name.get() : lines[i];
            std::fprintf(stderr, "[%zu]  %s\n", i, text);
            syslog(LOG_CRIT, "[%zu]  %s\n", i, text);
        }
        std::fflush(stderr);
        closelog();
        std::free(lines);
    }
    std::abort();
}
