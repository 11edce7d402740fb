#include "sync/dump_watch.h"

void dump_watch::handled(const dump_marks_t &marks) {
    incomplete = incomplete || marks.incomplete;
    if (marks.multipart) {
        // The time after handling the datagram, not of its arrival: writing the log lines of one
        // datagram can take longer than the limit.
        last_progress = now();
    }
}

bool dump_watch::repeats() {
    constexpr int max_repeats = 3;
    const bool repeat = incomplete && repeat_count < max_repeats;
    incomplete = false;
    repeat_count = repeat ? repeat_count + 1 : 0;
    return repeat;
}

bool dump_watch::is_overdue() const {
    return now() - last_progress >= std::chrono::seconds(30);
}
