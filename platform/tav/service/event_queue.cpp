#include "service/event_queue.h"

#include <algorithm>

#include "protocol/limits.h"
#include "service/path.h"

namespace tav {

bool EventQueue::add(const Event &event, bool foreign) {
    const auto known = by_path.find(event.path);
    if (known != by_path.end()) {
        const auto position = known->second.find(event.command);
        if (position != known->second.end()) {
            const auto waiting = entries.find(position->second);
            Entry merged{event, foreign || waiting->second.foreign};
            entries.erase(waiting);
            entries.emplace(next, std::move(merged));
            position->second = next++;
            return true;
        }
    }
    const std::size_t cost = event.path.size() + event_overhead;
    if (entries.size() >= limits::pending_events || bytes + cost > limits::pending_bytes) {
        return false;
    }
    by_path[event.path][event.command] = next;
    entries.emplace(next++, Entry{event, foreign});
    bytes += cost;
    return true;
}

bool EventQueue::is_foreign(const Positions &positions) const {
    return std::any_of(positions.begin(), positions.end(), [this](const auto &position) {
        return position.first != mlr_event_notice && entries.at(position.second).foreign;
    });
}

bool EventQueue::holds_foreign(const std::string &path) const {
    const auto known = by_path.find(path);
    if (known != by_path.end() && is_foreign(known->second)) {
        return true;
    }
    for (auto below = by_path.lower_bound(path + '/');
         below != by_path.end() && is_at_or_below(below->first, path); ++below) {
        if (is_foreign(below->second)) {
            return true;
        }
    }
    return false;
}

std::vector<Event> EventQueue::take() {
    std::vector<Event> events;
    events.reserve(entries.size());
    for (auto &[position, entry] : entries) {
        events.push_back(std::move(entry.event));
    }
    entries.clear();
    by_path.clear();
    bytes = 0;
    return events;
}

} // namespace tav
