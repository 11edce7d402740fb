// Watches the dumps that discovery requests: one that never ends, and one that lacks records.
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
    // missing. Under steady churn no dump is ever complete, so it says so three times at most for
    // one step.
    bool repeats();
    // Whether nothing has come for thirty seconds. A request that the kernel answers by an error
    // alone has no end to wait for.
    bool is_overdue() const;

private:
    time_point (*now)();
    time_point last_progress{};
    bool incomplete = false;
    int repeat_count = 0; // of the present step
};
