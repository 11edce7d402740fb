// The command line, and the process-wide settings that it fills. The settings are written by
// parse_options (and static initialisation) alone and only read afterwards.
#pragma once

#include <cstdint>
#include <memory>

#include <tav/toolkit.h>

struct rt_sched_request_t {
    std::int32_t policy;   // SCHED_...
    std::int32_t priority; // within the policy's range
};

// The value of nice_priority when no priority was asked for; below every valid one.
constexpr std::int32_t nice_not_requested = -100;

extern std::uint32_t verbosity;    // -D: levels up to this one are logged
extern bool daemon_mode;           // cleared by -d
extern tk_string interface_string; // -i: prefix of the kernel links to manage
extern std::uint32_t run_as_uid;   // -u: the process's real user id by default
extern std::int32_t nice_priority; // -n: -20..19, or nice_not_requested
extern std::unique_ptr<rt_sched_request_t> rt_sched_request; // -r: null when not requested

// Reads the arguments into the settings. Returns false, after printing the usage text to standard
// output, when an argument is not acceptable; settings from earlier arguments keep their new
// values.
bool parse_options(int argc, char *argv[]);

// Stores the SCHED_ value for "normal", "batch", "fifo" or "rr" and returns 0; returns 1 for any
// other name and does not change `policy`.
int parse_sched_policy(const char *name, int &policy);

void print_usage(const char *program);
