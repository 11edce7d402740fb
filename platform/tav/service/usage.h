// How much of each limit is used, and how often somebody met it.
#ifndef TAV_SERVICE_USAGE_H
#define TAV_SERVICE_USAGE_H

#include <tav/mlr.h>

#include <array>
#include <cstdint>
#include <vector>

#include "protocol/messages.h"

namespace tav {

// In the order of their table, which says more of each.
enum class Limit : std::size_t {
    path_bytes,
    depth,
    name_bytes,
    value_bytes,
    children,
    elements,
    registrations,
    connections,
    user_connections,
    frame_bytes,
    request_paths,
    request_rate,
    pending_events,
    pending_bytes,
    held_bytes,
    greeting,
    number_ // how many there are
};

class Usage {
public:
    // What is used now.
    void set(Limit limit, std::uint64_t used) { at(limit).used = used; }
    // What is remembered is the most that ever was.
    void raise(Limit limit, std::uint64_t used);
    // Somebody met the limit.
    void refuse(Limit limit) { ++at(limit).refused; }
    // A path of a call was given this status; counts if it is that of a limit.
    void count(api_status_t status);

    std::vector<LimitStatus> status() const;

private:
    struct Row {
        std::uint64_t used = 0;
        std::uint64_t refused = 0;
    };
    Row &at(Limit limit) { return rows[static_cast<std::size_t>(limit)]; }

    std::array<Row, static_cast<std::size_t>(Limit::number_)> rows;
};

} // namespace tav

#endif
