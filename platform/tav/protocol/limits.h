// Every limit of the settings store, in one place. The service enforces them; the client library
// checks those on the size of a request, so that it never sends a request that the service would
// reject. The comments name the status with which the service answers beyond each limit.
#pragma once

#include <cstddef>

namespace tav::limits {

// Names: 1 to 255 bytes, any but NUL and "/". api_status_name_too_long; this also applies to the
// names of watchdogs.
constexpr std::size_t name_bytes = 255;
// A whole path with its separators, and the number of names in it. api_status_path_too_long,
// api_status_path_too_deep.
constexpr std::size_t path_bytes = 4096;
constexpr std::size_t depth = 64;
// The text of one value. String values may hold any byte but NUL. api_status_value_too_long.
constexpr std::size_t value_bytes = 65536;

// Children of one node. Chosen so that a listing of names of maximum length fits one frame.
// api_status_too_many_children.
constexpr std::size_t children_per_node = 60000;
// Nodes and leaves of the whole tree. api_status_too_many_elements.
constexpr std::size_t elements = 1000000;

// One frame without its length field. A frame with a larger length ends the connection. If a
// request would not fit, the library returns api_status_too_large; if an answer would not fit, the
// service does.
constexpr std::size_t frame_bytes = std::size_t{16} << 20;
// The first frame of a connection, length field included.
constexpr std::size_t greeting_bytes = 64;
// Paths of one call. All other clients wait while the service carries one out: chosen so that a
// transaction with this many steps takes much less than the time limit of their calls.
// api_status_too_large.
constexpr std::size_t paths_per_request = 50000;
// Intended size of a page of a dump, in bytes; the page ends with the element that exceeds it.
constexpr std::size_t dump_page_bytes = std::size_t{4} << 20;

// Events that wait for one client. Beyond either limit the service ends that client's connection.
// The client then starts again and reads everything, so that no change is missed silently. The
// bytes are those of the encoded events; they must fit one frame.
constexpr std::size_t pending_events = 100000;
constexpr std::size_t pending_bytes = std::size_t{12} << 20;

// Event registrations of one client. api_status_too_many_registrations.
constexpr std::size_t registrations_per_client = 64;
// Connections in total and of one user (a client has two). The last ones are reserved for root and
// the user that the service runs as. api_status_too_many_connections.
constexpr std::size_t connections = 1024;
constexpr std::size_t connections_kept = 128;
constexpr std::size_t connections_per_user = 256;

// Bytes of received requests, unsent replies and waiting events, for all clients together. Beyond
// it the service takes the user with the most bytes, and ends the connection of that user's client
// with the most bytes.
constexpr std::size_t held_bytes = std::size_t{128} << 20;

// Requests of one client per second. Beyond it the client is served only while no other client has
// a request.
constexpr std::size_t requests_per_second = 20000;

// Length of watchdog names (api_status_name_too_long), and number of disconnected watchdogs that
// are kept for display.
constexpr std::size_t watchdog_name_bytes = 64;
constexpr std::size_t departed_watchdogs = 32;

} // namespace tav::limits
