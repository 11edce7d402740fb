// Looking again for a moment before sleeping, where there is a second processor.
//
// A reply mostly comes within microseconds, while a processor that went idle takes some 50 to run a
// process again (a virtual one, that is: with a reply to wait for, each exchange pays this twice).
// So whoever waits lets others run first, here as well, and looks once more.
#ifndef TAV_CLIENT_SHORT_WAIT_H
#define TAV_CLIENT_SHORT_WAIT_H

#include <sched.h>

#include <chrono>

namespace tav {

// Whether this process may run on more than one processor; of one, sleeping is the only way to let
// the other side run. Asked once in a process.
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
    // True after letting others run: look once more. False when it is time to sleep: after 100 µs,
    // as soon as somebody else wants this processor, or always where it is the only one.
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
    // Two looks are not further apart unless somebody else ran between them.
    static constexpr std::chrono::microseconds alone{5};

    bool looked = false;
    Clock::time_point begun;
    Clock::time_point last;
};

} // namespace tav

#endif
