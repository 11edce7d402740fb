// Every limit of the settings store, in one place. The service enforces them; the client library
// uses those of a request's size so that it never sends what would be cut off. What is beyond one
// of them is answered with the status that is named with it.
#ifndef TAV_PROTOCOL_LIMITS_H
#define TAV_PROTOCOL_LIMITS_H

#include <cstddef>

namespace tav::limits {

// Names: 1 to 255 bytes, any but NUL and "/". api_status_name_too_long, also for a watchdog's.
constexpr std::size_t name_bytes = 255;
// A whole path with its separators, and the number of names in it. api_status_path_too_long,
// api_status_path_too_deep.
constexpr std::size_t path_bytes = 4096;
constexpr std::size_t depth = 64;
// The text of one value. String values may hold any byte but NUL. api_status_value_too_long.
constexpr std::size_t value_bytes = 65536;

// Children of one node. Chosen so that a listing of names of full length fits one frame.
// api_status_too_many_children.
constexpr std::size_t children_per_node = 60000;
// Nodes and leaves of the whole tree. api_status_too_many_elements.
constexpr std::size_t elements = 1000000;

// One frame without its length field. A longer announcement ends the connection; what would not
// fit gets api_status_too_large, a request from the library and an answer from the service.
constexpr std::size_t frame_bytes = std::size_t{16} << 20;
// The first frame of a connection, length field included.
constexpr std::size_t greeting_bytes = 64;
// Paths of one call. Everybody waits while the service carries one out: chosen so that a
// transaction of so many steps is done in well under the time limit of the others' calls.
// api_status_too_large.
constexpr std::size_t paths_per_request = 50000;
// Elements that one page of a dump aims at, in bytes; a page ends with the element that passes it.
constexpr std::size_t dump_page_bytes = std::size_t{4} << 20;

// Events that wait for one client. Beyond either limit the service ends that client's connection:
// the client then starts afresh and reads everything, so that nothing is silently missed. The bytes
// are those of the encoded events and must fit one frame.
constexpr std::size_t pending_events = 100000;
constexpr std::size_t pending_bytes = std::size_t{12} << 20;

// Event registrations of one client. api_status_too_many_registrations.
constexpr std::size_t registrations_per_client = 64;
// Connections in all and of one user (a client has two). The last ones are kept for root and the
// user that the service runs as. api_status_too_many_connections.
constexpr std::size_t connections = 1024;
constexpr std::size_t connections_kept = 128;
constexpr std::size_t connections_per_user = 256;

// What the service has received of requests, not yet sent of replies, and keeps of events, for all
// clients together. Beyond it the service ends the connection of the client that it holds most for,
// of those of the user that it holds most for.
constexpr std::size_t held_bytes = std::size_t{128} << 20;

// Requests of one client in a second. Beyond it the client is served only while no other one has a
// request.
constexpr std::size_t requests_per_second = 20000;

// Watchdog names (api_status_name_too_long), and the departed watchdogs that are remembered for
// display.
constexpr std::size_t watchdog_name_bytes = 64;
constexpr std::size_t departed_watchdogs = 32;

} // namespace tav::limits

#endif
