// Watches the dumps that discovery requests: one may never end, another may lack records.
#pragma once

#include <chrono>

#include "netlink/dump.h"

class dump_watch {
public:
    using time_point = std::chrono::steady_clock::time_point;

    explicit dump_watch(time_point (*clock)() = std::chrono::steady_clock::now) : now(clock) {}

    // A request was sent.
    void requested() { last_progress = now(); }
    // A datagram was handled that came while a dump was awaited.
    void handled(const dump_marks_t &marks);

    // Called at the end of a dump: whether to send the same request again, because records may be
    // missing. If the table changes all the time, no dump is ever complete, so it returns true at
    // most three times per step.
    bool repeats();
    // Whether thirty seconds have passed since the last request and the last datagram of a dump. If
    // the kernel answers a request only with an error, the dump never ends.
    bool is_overdue() const;

private:
    time_point (*now)();
    time_point last_progress{};
    bool incomplete = false;
    int repeat_count = 0; // of the current step
};
