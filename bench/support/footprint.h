// A process's use of memory and processor.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <sys/types.h>

namespace bench {

// In kilobytes, from /proc/<pid>/smaps_rollup.
struct memory_t {
    double resident = 0;
    double proportional = 0; // shared pages counted in part
    double private_only = 0;
};
memory_t memory_of(pid_t process);

// How often it has gone to sleep voluntarily.
std::uint64_t sleeps_of(pid_t process);

// The size of a copy of the program without symbols, in bytes.
std::uint64_t stripped_size(const std::string &program);

} // namespace bench
