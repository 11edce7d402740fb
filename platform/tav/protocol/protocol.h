// The numbers of the protocol between client library and service. PROTOCOL.md describes it.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace tav {

// The service's socket if neither an option nor the environment names another one.
constexpr const char *default_socket = "/run/tav/tav.sock";
constexpr const char *socket_variable = "TAV_SOCKET";

// First bytes of each connection's first frame, so that a foreign program is recognised.
constexpr std::uint32_t magic = 0x54415631; // "TAV1"
constexpr std::uint32_t protocol_version = 5;

// A frame: its length without these four bytes, most significant byte first, then the body.
constexpr std::size_t length_bytes = 4;

// The serial number of the frame with which the service ends a connection and says why. A client's
// own serial numbers begin at 1.
constexpr std::uint32_t farewell_serial = 0;

// The kinds of requests. The first two open the two connections of a client: the first one is for
// calls, and the second one transfers only wake-up bytes afterwards.
enum class Op : std::uint8_t {
    hello = 1,
    attach = 2,
    read = 3,
    list = 4,
    transact = 5,
    event_register = 6,
    events_get = 7,
    watchdog_register = 8,
    watchdog_ping = 9, // has no reply
    dump = 10,
    status = 11,
    wake_acknowledge = 12, // the program saw the wake-up byte and ignores its events
    state_program = 13,    // how the client calls itself
    history = 14,
    read_ahead = 15,         // everything below a node, until a notice makes it void
    ping_after_answers = 16, // a ping; the library has answered calls from its read-ahead
    transact_pending = 17,   // a transaction that is reverted unless it is confirmed in time
    confirm = 18,
    pending = 19, // what waits for its confirmation
};

// The steps of a transaction.
enum class ItemKind : std::uint8_t {
    set = 1,         // write a leaf
    make_node = 2,   // create a node; an existing node is no error
    remove_node = 3, // remove a node and everything below it; a leaf is the wrong kind
    remove = 4,      // remove a node and everything below it, or a leaf
    touch = 5, // a change event for the leaf, or for each leaf below the node, without a change
    remove_single = 6, // remove a leaf, or a node that has no children
    clear =
        7, // remove everything at and below the path, if there is anything; the root itself stays
    // Conditions change nothing; one that does not hold refuses the transaction.
    require = 8,        // the element has this type and text, and this time if one is given
    require_absent = 9, // there is nothing at the path
};

// Whether items of this kind carry a value.
constexpr bool has_value(ItemKind kind) {
    return kind == ItemKind::set || kind == ItemKind::require;
}

// The byte that makes a client's descriptor readable.
constexpr char wake_byte = 'w';

// A client that has not opened both of its connections within this time is disconnected.
constexpr std::chrono::milliseconds greeting_time{5000};

// A client that has not taken an answer completely within this time is disconnected: meanwhile the
// service keeps what the answer is made from.
constexpr std::chrono::milliseconds answer_time{60000};

// After a wake-up that was acknowledged without a fetch, the next one waits this long. After a
// request other than a ping, the next one waits until this long has passed without another request
// or ping, ...
constexpr std::chrono::milliseconds wake_pause{50};
// ... but because of requests an event never waits longer than this for its wake-up.
constexpr std::chrono::milliseconds wake_wait_limit{1000};

} // namespace tav
