#include "stress/measure.h"

#include <algorithm>
#include <cstdio>
#include <string>

#include "stress/service.h"

namespace stress {

using Clock = std::chrono::steady_clock;

double Times::at(double part) {
    if (microseconds.empty()) {
        return 0; // one call took all the time
    }
    std::sort(microseconds.begin(), microseconds.end());
    const auto last = static_cast<double>(microseconds.size() - 1);
    return microseconds[static_cast<std::size_t>(part * last)];
}

// One read after the other, every tenth call a write, for this time.
Measured measure(std::chrono::seconds span) {
    Measured measured;
    Client client;
    const Clock::time_point end = Clock::now() + span;
    for (long number = 0; Clock::now() < end && measured.served; ++number) {
        api_status_t status = api_status_none;
        const Clock::time_point before = Clock::now();
        int result = 0;
        const bool write = number % 10 == 0;
        if (write) {
            const toolkit::CElement value(std::to_string(number), -1);
            result = client.tav.set_leaf("/good/value", value, status, mlr_tribool_unset, "");
        } else {
            toolkit::CElement value;
            element_property_t property = element_property_none;
            result = client.tav.get_leaf("/good/value", status, value, property);
        }
        const std::chrono::duration<double, std::micro> taken = Clock::now() - before;
        (write ? measured.writes : measured.reads).microseconds.push_back(taken.count());
        measured.served = result == 0 && status == api_status_ok;
    }
    return measured;
}

void print_head() {
    std::printf("%-46s %29s %29s\n", "", "a read, microseconds", "a write, microseconds");
    std::printf("%-46s %9s %9s %9s %9s %9s %9s %8s\n", "", "p50", "p99", "most", "p50", "p99",
                "most", "calls");
}

void print(const char *what, Measured measured) {
    std::printf("%-46s", what);
    for (Times *times : {&measured.reads, &measured.writes}) {
        std::printf(" %9.0f %9.0f %9.0f", times->at(0.5), times->at(0.99), times->at(1));
    }
    std::printf(" %8zu%s\n",
                measured.reads.microseconds.size() + measured.writes.microseconds.size(),
                measured.served ? "" : "  NOT SERVED");
    std::fflush(stdout);
}

} // namespace stress
