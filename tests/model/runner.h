// Carries out a sequence and checks the result.
#pragma once

#include <cstddef>
#include <string>

#include "operations.h"

namespace model {

struct Verdict {
    std::string failure;          // empty: nothing was wrong
    std::size_t items = 0;        // compared with the prediction, or undetermined
    std::size_t undetermined = 0; // not compared, because the order of events was unknown
    std::size_t operations = 0;
    std::size_t refused = 0; // Static addresses that the kernel refused
    std::string log;         // the daemon's last lines, when it failed
};

Verdict run(const Sequence &sequence);

// The shortest sequence found that still fails, after at most this many attempts.
Sequence shrink(const Sequence &failing, int tries);

} // namespace model
