// How many requests one client makes, in short slices of time.
#pragma once

#include <chrono>
#include <cstdint>

#include "protocol/limits.h"
#include "service/wake.h"

namespace tav {

class Rate {
public:
    // The client has used up its share of the current slice.
    bool spent(Time now) {
        if (now >= begun + slice) {
            begun = now;
            requests = 0;
        }
        return requests >= share;
    }
    // Counts one request.
    void count() { ++requests; }
    // Requests per second at the rate of the current slice.
    std::uint64_t per_second() const { return requests * slices; }

private:
    static constexpr std::uint64_t slices = 10; // in a second
    static constexpr std::chrono::milliseconds slice{1000 / slices};
    static constexpr std::uint64_t share = limits::requests_per_second / slices;

    Time begun;
    std::uint64_t requests = 0;
};

} // namespace tav
