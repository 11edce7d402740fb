// The system calls that the daemon makes, replaced at link time (wrapped.cmake). Each calls the
// real one, unrecorded, until a test arms it; from then on it is entered in the journal as
// "name(arguments)" and returns the prepared results.
//
// syslog, openlog and closelog never reach the real ones: see log_capture.h. Nor does alarm, which
// is always entered as "alarm(<seconds>)": it would kill the test process later.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace fake_os {

// Thrown by an armed select whose script is used up. Has no base class, so that the daemon's
// handlers do not catch it and the test ends instead of looping.
struct script_exhausted {};

// The results of one armed call.
class stub_t {
public:
    // Arms the call. The next call returns `result`, with errno set to `error` unless that is 0.
    // Results are used in order; the last one is also used for every later call.
    stub_t &returns(long result, int error = 0);
    // The same instead of the results so far.
    stub_t &now_returns(long result, int error = 0) {
        clear();
        return returns(result, error);
    }
    bool armed() const { return !results.empty(); }
    // Takes the next result and sets errno.
    long take();
    void clear() { results.clear(); }

private:
    struct result_t {
        long value;
        int error;
    };
    std::deque<result_t> results;
};

// The arguments of one call of select.
struct select_call_t {
    int nfds = 0;
    std::vector<int> reading;
    bool writes = false, exceptions = false; // whether those sets were passed
    bool has_timeout = false;
    long seconds = 0, microseconds = 0;
};

// The script of an armed select, one step for each call. The journal gets "select(<seconds>)".
class select_script_t {
public:
    // In the call these descriptors are readable, and no others. Runs `before` first (to raise an
    // exit request, ...).
    select_script_t &ready(std::vector<int> descriptors, std::function<void()> before = nullptr);
    select_script_t &timeout(std::function<void()> before = nullptr);
    select_script_t &fail(int error, std::function<void()> before = nullptr);
    // This function answers every call instead: it sets the readable descriptors and returns 0, or
    // returns the errno value with which the call fails.
    using answer_t = std::function<int(const select_call_t &, std::vector<int> &)>;
    void answered_by(answer_t function);
    // Without a step, every call is one too many.
    void arm() { is_armed = true; }
    // Steps left over.
    std::size_t left() const { return steps.size(); }
    const std::vector<select_call_t> &calls() const { return made; }

    bool armed() const { return is_armed; }
    int take(select_call_t call, std::vector<int> &ready_descriptors);
    void clear();

private:
    struct step_t {
        int error;
        std::vector<int> ready;
        std::function<void()> before;
    };
    bool is_armed = false;
    unsigned exhausted = 0; // calls without a step
    answer_t answer;
    std::deque<step_t> steps;
    std::vector<select_call_t> made;
};

struct state_t {
    stub_t setpriority, sched_setscheduler, setuid, getuid, fork, setsid, chdir, umask, open, dup,
        close, sigaction, write, setsockopt;
    // For both wait and waitpid; the journal shows which. The result is the child's ID,
    // `wait_status` its status; with a result of -1 there is no status.
    stub_t wait;
    int wait_status = 0;
    // pipe returns these two descriptors if its result is 0.
    stub_t pipe;
    int pipe_read = 80, pipe_write = 81;
    // inet_ntop returns null (with the errno value) for the result 0 and works otherwise.
    stub_t inet_ntop;

    // getpwnam knows only these users while `users_armed` is set.
    bool users_armed = false;
    std::map<std::string, std::uint32_t> users;

    // Runs first in mlr_init, which is the fake store's otherwise; may throw.
    std::function<void()> before_mlr_init;

    // The lines that backtrace_symbols returns, one for each frame; with `no_symbols` it returns
    // null. The returned array is watched (watch_free).
    bool backtrace_armed = false;
    bool no_symbols = false;
    std::vector<std::string> frames;

    select_script_t select;
};

state_t &state();

// Enters "free(watched)" in the journal when this pointer is freed, once. It is really freed. Plain
// data: free is also called before and after the lifetime of the fakes.
inline const void *watched_pointer = nullptr;
inline void watch_free(const void *pointer) {
    watched_pointer = pointer;
}

// The result of a call that may end the process. `how` is "returned", "exit", "_exit" or "abort".
struct ending_t {
    std::string how;
    int status = 0; // the exit status, or what `call` returned
};

// Makes the call with exit, _exit and abort armed: each is entered in the journal and returns here
// instead of ending the process. Objects in the frames in between are not destroyed.
ending_t ending_of(const std::function<int()> &call);

} // namespace fake_os
