// The events that wait for one client, bounded and merged.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "protocol/messages.h"

namespace tav {

class EventQueue {
public:
    // Adds an event to the end. A waiting event of the same path and command is merged into it: it
    // moves to the end, so that the last event on a path always describes its present state, and
    // the remaining events of each transaction stay together. `foreign`: another client made the
    // change. False if the queue would exceed its limits; it is then unchanged.
    bool add(const Event &event, bool foreign);
    // A change by somebody else of a leaf at or below that path is waiting.
    bool holds_foreign(const std::string &path) const;
    // Everything, in order; the queue is empty afterwards.
    std::vector<Event> take();

    std::size_t size() const { return entries.size(); }
    bool empty() const { return entries.empty(); }
    // The size of the encoded events.
    std::size_t size_bytes() const { return bytes; }

private:
    struct Entry {
        Event event;
        bool foreign = false;
    };
    // Positions of the waiting events on one path, by command.
    using Positions = std::map<std::int32_t, std::uint64_t>;

    bool is_foreign(const Positions &positions) const;

    std::map<std::uint64_t, Entry> entries;
    std::map<std::string, Positions> by_path;
    std::uint64_t next = 0;
    std::size_t bytes = 0;
};

} // namespace tav
