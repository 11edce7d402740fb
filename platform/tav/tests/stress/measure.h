// How other clients slow down a well-behaved one: the time of its reads and writes.
#pragma once

#include <chrono>
#include <vector>

namespace stress {

struct Times {
    std::vector<double> microseconds;
    // The time that this part of the calls took at most.
    double at(double part);
};

struct Measured {
    Times reads;
    Times writes;
    bool served = true; // every call was answered
};

// One read after the other, every tenth call a write, for this time.
Measured measure(std::chrono::seconds span);

// The lines above a table, and one of its lines.
void print_head();
void print(const char *what, Measured measured);

} // namespace stress
