// Polling for a moment before sleeping, if there is a second processor.
//
// A reply usually arrives within microseconds, but an idle virtual processor takes about 50 to run
// a process again, and an exchange with a reply pays this twice. So a waiting process first lets
// others run and polls again.
#pragma once

#include <sched.h>

#include <chrono>

namespace tav {

// Whether this process may run on more than one processor; with only one, sleeping is the only way
// to let the other side run. Determined once per process.
inline bool has_second_processor() {
    static const bool has = [] {
        cpu_set_t usable;
        return ::sched_getaffinity(0, sizeof usable, &usable) == 0 && CPU_COUNT(&usable) > 1;
    }();
    return has;
}

// One wait.
class ShortWait {
public:
    // True after letting others run: poll again. False when it is time to sleep: after 100 µs, as
    // soon as another process wants this processor, or always if it is the only one.
    bool goes_on() {
        if (!has_second_processor()) {
            return false;
        }
        const Clock::time_point now = Clock::now();
        if (!looked) {
            looked = true;
            begun = now;
        } else if (now - begun > longest || now - last > alone) {
            return false;
        }
        last = now;
        ::sched_yield();
        return true;
    }

private:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::microseconds longest{100};
    // Two polls are at most this far apart unless another process ran in between.
    static constexpr std::chrono::microseconds alone{5};

    bool looked = false;
    Clock::time_point begun;
    Clock::time_point last;
};

} // namespace tav
