// How much of each limit is used, and how often a request exceeded it.
#pragma once

#include <tav/mlr.h>

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

#include "protocol/messages.h"

namespace tav {

// In the order of their table, which describes each.
enum class Limit : std::size_t {
    path_bytes,
    depth,
    name_bytes,
    value_bytes,
    children,
    elements,
    bytes,
    registrations,
    connections,
    user_connections,
    frame_bytes,
    request_paths,
    event_bytes,
    held_bytes,
    kept_bytes,
    read_aheads,
    read_ahead_bytes,
    pending_changes,
    pending_bytes,
    greeting,
    number_ // number of limits
};

class Usage {
public:
    // Sets the present use.
    void set(Limit limit, std::uint64_t used) { at(limit).used = used; }
    // Raises the largest use so far.
    void raise(Limit limit, std::uint64_t used);
    // Replaces the limit that is shown.
    void change(Limit limit, std::uint64_t value) { at(limit).value = value; }
    // Counts a request that exceeded the limit.
    void refuse(Limit limit) { ++at(limit).refused; }
    // Counts a path of a call with this status, if it is the status of a limit.
    void count(api_status_t status);

    std::vector<LimitStatus> status() const;

private:
    struct Row {
        std::uint64_t used = 0;
        std::uint64_t refused = 0;
        std::optional<std::uint64_t> value; // if it is not that of the table
    };
    Row &at(Limit limit) { return rows[static_cast<std::size_t>(limit)]; }

    std::array<Row, static_cast<std::size_t>(Limit::number_)> rows;
};

} // namespace tav
