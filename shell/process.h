// Detaching from the invoking process, and the scheduling and identity of this one.
#pragma once

#include <cstdint>

#include "shell/options.h"

// Opens /dev/null as each of the descriptors 0 to 2 that the process was started without, so that
// no file opened later takes the place of a standard stream.
void occupy_standard_descriptors();

// Detaches by forking twice. Returns 0 in the surviving process and non-zero on failure; the
// invoking process returns only on failure and otherwise exits with status 0.
int daemonize();

// Each applies one setting; a failure is logged, and the program continues without the setting.
void set_nice_priority(std::int32_t priority);
void set_rt_scheduling(const rt_sched_request_t &request);
void switch_user(std::uint32_t uid);
