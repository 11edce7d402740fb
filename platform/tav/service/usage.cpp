#include "service/usage.h"

#include <algorithm>

#include "in_order.h"
#include "protocol/limits.h"
#include "protocol/protocol.h"

namespace tav {

namespace {

struct Known {
    Limit limit;
    const char *name;
    std::uint64_t value;
    api_status_t
        status; // the status of a refused request; none: the client is disconnected or slowed down
};

constexpr std::array<Known, static_cast<std::size_t>(Limit::number_)> table{{
    {Limit::path_bytes, "bytes of a path", limits::path_bytes, api_status_path_too_long},
    {Limit::depth, "names of a path", limits::depth, api_status_path_too_deep},
    {Limit::name_bytes, "bytes of a name", limits::name_bytes, api_status_name_too_long},
    {Limit::value_bytes, "bytes of a value", limits::value_bytes, api_status_value_too_long},
    {Limit::children, "children of a node", limits::children_per_node,
     api_status_too_many_children},
    {Limit::elements, "elements in all", limits::elements, api_status_too_many_elements},
    {Limit::bytes, "bytes in all", limits::store_bytes, api_status_too_many_bytes},
    {Limit::registrations, "registrations of a client", limits::registrations_per_client,
     api_status_too_many_registrations},
    {Limit::connections, "connections in all", limits::connections,
     api_status_too_many_connections},
    {Limit::user_connections, "connections of a user", limits::connections_per_user,
     api_status_too_many_connections},
    {Limit::frame_bytes, "bytes of a message", limits::frame_bytes, api_status_too_large},
    {Limit::request_paths, "paths of a call", limits::paths_per_request, api_status_none},
    {Limit::event_bytes, "bytes of events that wait", limits::event_bytes, api_status_none},
    {Limit::held_bytes, "bytes held for all clients", limits::held_bytes, api_status_none},
    {Limit::kept_bytes, "bytes kept for long replies", limits::kept_bytes, api_status_none},
    {Limit::read_aheads, "read-aheads of all clients", limits::read_aheads, api_status_none},
    {Limit::read_ahead_bytes, "bytes of a read-ahead", limits::read_ahead_bytes, api_status_none},
    {Limit::pending_changes, "unconfirmed changes of a user", limits::pending_changes,
     api_status_none},
    {Limit::pending_bytes, "bytes of a user's unconfirmed", limits::pending_bytes, api_status_none},
    {Limit::greeting, "milliseconds to connect", greeting_time.count(), api_status_none},
}};

static_assert(in_order(table, &Known::limit));

} // namespace

void Usage::raise(Limit limit, std::uint64_t used) {
    at(limit).used = std::max(at(limit).used, used);
}

void Usage::count(api_status_t status) {
    if (status == api_status_none || status == api_status_ok) {
        return;
    }
    const auto *const known =
        std::find_if(table.begin(), table.end(),
                     [status](const Known &candidate) { return candidate.status == status; });
    if (known != table.end()) {
        refuse(known->limit);
    }
}

std::vector<LimitStatus> Usage::status() const {
    std::vector<LimitStatus> result;
    for (std::size_t i = 0; i < table.size(); ++i) {
        result.push_back(LimitStatus{table[i].name, rows[i].used,
                                     rows[i].value.value_or(table[i].value), rows[i].refused});
    }
    return result;
}

} // namespace tav
