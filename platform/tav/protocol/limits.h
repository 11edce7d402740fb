// Every limit of the settings store, in one place. The service enforces them; the client library
// checks those on the size of a request, so that it never sends a request that the service would
// reject. The comments name the status with which the service answers beyond each limit.
#pragma once

#include <cstddef>
#include <cstdint>

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

// Memory that the tree may use, unless the service is started with another limit.
// api_status_too_many_bytes.
constexpr std::size_t store_bytes = std::size_t{256} << 20;

// One frame without its length field. A frame with a larger length ends the connection. If a
// request would not fit, the library returns api_status_too_large; if an answer would not fit, the
// service does.
constexpr std::size_t frame_bytes = std::size_t{16} << 20;
// The first frame of a connection, length field included.
constexpr std::size_t greeting_bytes = 64;
// Paths of one call. api_status_too_large.
constexpr std::size_t paths_per_request = 50000;
// What the service keeps of one call's changes until they are committed takes at most this much
// more memory than the tree. api_status_too_large.
constexpr std::size_t change_bytes = std::size_t{64} << 20;
// A long answer is sent in frames of about the first size, as the client reads them. If an answer
// has more bytes in all than the second size, the library ends the connection.
constexpr std::size_t reply_part_bytes = std::size_t{64} << 10;
constexpr std::size_t reply_bytes = std::size_t{512} << 20;

// Memory of all events that wait for clients, which share one copy of each. Beyond it the service
// ends the connections of the clients that have waited longest. They then start again and read
// everything, so that no change is missed silently.
constexpr std::size_t event_bytes = std::size_t{64} << 20;
// Events that report no change and wait for one client; the connection ends beyond it.
constexpr std::size_t notices_per_client = 128;

// What the history may use, for the transactions of operators and again for those of services. A
// larger transaction is in it without its values.
constexpr std::size_t history_bytes = std::size_t{1} << 20;
constexpr std::size_t history_transactions = 1000; // unless the service is started with another one
// The name by which a client calls itself. api_status_name_too_long.
constexpr std::size_t program_bytes = 64;

// The longest term within which a change must be confirmed, in milliseconds; the shortest is 1. How
// many changes of one user may wait at once, and their bytes with their values.
// api_status_too_much_pending.
constexpr std::uint32_t confirm_term = 86400000; // a day
constexpr std::size_t pending_changes = 16;
constexpr std::size_t pending_bytes = std::size_t{1} << 20;

// Event registrations of one client. api_status_too_many_registrations.
constexpr std::size_t registrations_per_client = 64;
// Connections in total and of one user (a client has two). The last ones are reserved for root and
// the user that the service runs as. api_status_too_many_connections.
constexpr std::size_t connections = 1024;
constexpr std::size_t connections_kept = 128;
constexpr std::size_t connections_per_user = 256;

// A client has at most one read-ahead, and two connections; the service keeps only the path of each
// read-ahead. A client gets no read-ahead of more bytes.
constexpr std::size_t read_aheads = connections / 2;
constexpr std::size_t read_ahead_bytes = std::size_t{4} << 20;

// Bytes of received requests and unsent replies, for all clients together. Beyond it the service
// takes the user with the most bytes, and ends the connection of that user's client with the most
// bytes.
constexpr std::size_t held_bytes = std::size_t{128} << 20;

// Bytes of values and elements that were replaced or removed, but that unfinished replies still
// describe. Beyond it the service ends the connections whose replies began first.
constexpr std::size_t kept_bytes = std::size_t{64} << 20;

// Length of watchdog names (api_status_name_too_long), and number of disconnected watchdogs that
// are kept for display.
constexpr std::size_t watchdog_name_bytes = 64;
constexpr std::size_t departed_watchdogs = 32;

} // namespace tav::limits
