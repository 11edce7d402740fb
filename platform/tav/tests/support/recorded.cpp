#include "support/recorded.h"

#include <algorithm>
#include <map>

namespace tavtest {

// The state after the first `moment` writes.
bool History::shows(const Read &read, std::size_t moment) const {
    const std::uint64_t value = moment == 0 ? 0 : writes[moment - 1].value;
    return read.any ? value != 0 : value == read.value;
}

// With one writer the only freedom is how many writes come before each read: at least those that
// ended before it began and those that came before an earlier read, at most those that began before
// it ended. The smallest possible number leaves later reads most freedom.
std::string History::fault() const {
    std::vector<Read> ordered = reads;
    std::sort(ordered.begin(), ordered.end(),
              [](const Read &left, const Read &right) { return left.begin < right.begin; });
    std::multimap<Time, std::size_t> open; // reads by their end, with the writes before them
    std::size_t seen = 0;                  // by a read that has ended
    for (const Read &read : ordered) {
        while (!open.empty() && open.begin()->first < read.begin) {
            seen = std::max(seen, open.begin()->second);
            open.erase(open.begin());
        }
        const auto ended = std::partition_point(writes.begin(), writes.end(),
                                                [&](auto &w) { return w.end < read.begin; });
        const auto begun = std::partition_point(writes.begin(), writes.end(),
                                                [&](auto &w) { return w.begin <= read.end; });
        const auto least = static_cast<std::size_t>(ended - writes.begin());
        const auto most = static_cast<std::size_t>(begun - writes.begin());
        std::size_t moment = std::max(least, seen);
        while (moment <= most && !shows(read, moment)) {
            ++moment;
        }
        if (moment > most) {
            return "a read from " + std::to_string(read.begin) + " to " + std::to_string(read.end) +
                   " found " + (read.any ? "a value" : std::to_string(read.value)) + ", but " +
                   std::to_string(least) + " writes had ended before it, " + std::to_string(most) +
                   " had begun, and an earlier read had seen " + std::to_string(seen);
        }
        open.emplace(read.end, moment);
    }
    return {};
}

} // namespace tavtest
