// The content of requests and replies: for each kind of object its writer and its reader side by
// side. The Reader says whether reading succeeded (Reader::ok, Reader::finished).
#pragma once

#include <tav/mlr.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "protocol/codec.h"
#include "protocol/protocol.h"

namespace tav {

// A leaf's content. `time`: seconds since 1970, or no_time.
struct Value {
    element_type_t type = element_type_none;
    std::string text;
    std::int64_t time = -1;
};
constexpr std::int64_t no_time = -1;

struct Event {
    std::int32_t command = 0;
    std::string path;
};
// Bytes of an encoded event besides its path.
constexpr std::size_t event_overhead = 8;

// Every request begins with its kind and a serial number that the reply repeats.
struct RequestHeader {
    Op op = Op::hello;
    std::uint32_t serial = 0;
};

// `drain`: this exchange acknowledged one wake-up byte. The client must read it from the wake-up
// connection, where it has already arrived: it was sent before the reply. `more`: the content goes
// on in the next frame, which has a header of its own. `notice`: no reply, but the notice that the
// read-ahead with this serial number is void; without content.
struct ReplyHeader {
    std::uint32_t serial = 0;
    bool drain = false;
    bool more = false;
    bool notice = false;
};
// Where the encoded header of a frame has its flags, from the start of the frame, ...
constexpr std::size_t reply_flags_at = 8;
// ... and what they are.
constexpr std::uint8_t reply_drain = 1;
constexpr std::uint8_t reply_more = 2;
constexpr std::uint8_t reply_notice = 4;
// Sets the flag in a frame.
std::string mark_more(std::string frame);

// The content of the frame with the serial number farewell_serial, the last one of a connection:
// why the service ends or refuses the connection.
struct Farewell {
    api_status_t status = api_status_none;
    std::string reason; // a sentence for the client's report
};

// Opens a client's connection for calls. Answered with a Ticket.
struct Hello {
    std::uint32_t magic = 0;
    std::uint32_t version = 0;
};

// Names a session; presented on the second connection. The token is random, so that only the client
// that received it can attach.
struct Ticket {
    std::uint64_t session = 0;
    std::uint64_t token = 0;
};

// One step of a transaction; the value is used if has_value(kind).
struct Item {
    ItemKind kind = ItemKind::set;
    std::string path;
    Value value;
};

// The answer for one path of a read; the value is meaningful only if the status is ok.
struct LeafAnswer {
    api_status_t status = api_status_none;
    Value value;
};

struct Child {
    std::string name;
    element_type_t type = element_type_none;
};

struct Registration {
    std::string path;
    std::uint32_t event = 0;
    bool own_changes = false;
};

struct WatchdogRequest {
    std::string name;
    std::int32_t period = 0; // seconds
    bool enabled = false;
};

// The answer to a dump is a status and, for each element of the subtree, parents first and in the
// order of listings, a 1 and the element; a 0 ends it.
struct DumpElement {
    std::string path;
    Value value; // of type node for a node
};

constexpr std::uint64_t never_listed = UINT64_MAX;

// The answer to a read-ahead is a status and, if it is ok, the elements below the node, parents
// first and in the order of listings. `depth` is 1 for the node's children. A depth of 0, without
// the rest, ends it; of depth_too_large, too, and the client has no read-ahead then.
// The texts belong to the message from which they were read.
struct AheadElement {
    std::uint8_t depth = 0;
    std::string_view name;
    element_type_t type = element_type_none;
    std::string_view text; // of a leaf
    std::int64_t time = no_time;
};
constexpr std::uint8_t depth_end = 0;
constexpr std::uint8_t depth_too_large = 255;

struct ClientStatus {
    std::uint64_t session = 0;
    std::uint32_t pid = 0;
    std::uint32_t uid = 0;
    bool may_write = false;
    std::uint32_t registrations = 0;
    std::uint64_t pending = 0;           // events
    bool signalled = false;              // its descriptor is readable
    std::uint64_t listed = never_listed; // milliseconds since it last listed a node
};

enum class WatchdogState : std::uint8_t { fine = 0, overdue = 1, gone = 2 };

struct WatchdogStatus {
    std::string name;
    std::uint32_t pid = 0;
    std::int32_t period = 0; // seconds
    std::uint64_t since = 0; // milliseconds since the last ping
    WatchdogState state = WatchdogState::fine;
};

// One of the store's limits. `used`: the present use; for limits on the size of a single item, and
// for limits per client or user, the largest value since the service started.
struct LimitStatus {
    std::string name;
    std::uint64_t used = 0;
    std::uint64_t limit = 0;
    std::uint64_t refused = 0; // how often a request exceeded the limit since the service started
};

struct ServiceStatus {
    std::uint32_t pid = 0;
    std::string database;     // file name, empty when the store lives in memory only
    std::string durability;   // the durability of a commit: "full", "normal" or "none"
    std::uint64_t uptime = 0; // seconds
    std::uint64_t revision = 0;
    std::uint64_t nodes = 0;
    std::uint64_t leaves = 0;
    std::uint64_t overflowed = 0; // clients disconnected for not fetching their events
    std::vector<LimitStatus> limits;
    std::vector<ClientStatus> clients;
    std::vector<WatchdogStatus> watchdogs;
};

void put(Writer &out, const RequestHeader &value);
void get(Reader &in, RequestHeader &value);
void put(Writer &out, const ReplyHeader &value);
void get(Reader &in, ReplyHeader &value);
void put(Writer &out, const Farewell &value);
void get(Reader &in, Farewell &value);
void put(Writer &out, const Hello &value);
void get(Reader &in, Hello &value);
void put(Writer &out, const Ticket &value);
void get(Reader &in, Ticket &value);
void put(Writer &out, const Value &value);
void get(Reader &in, Value &value);
void put(Writer &out, const Event &value);
void get(Reader &in, Event &value);
void put(Writer &out, const Item &value);
void get(Reader &in, Item &value);
// A LeafAnswer that refers to its value; used only if the status is ok.
void put_leaf(Writer &out, api_status_t status, const Value *value);
void put(Writer &out, const LeafAnswer &value);
void get(Reader &in, LeafAnswer &value);
void put(Writer &out, const Child &value);
void get(Reader &in, Child &value);
void put(Writer &out, const Registration &value);
void get(Reader &in, Registration &value);
void put(Writer &out, const WatchdogRequest &value);
void get(Reader &in, WatchdogRequest &value);
void put_element(Writer &out, std::string_view path, const Value &value);
void put(Writer &out, const DumpElement &value);
void get(Reader &in, DumpElement &value);
void put(Writer &out, const AheadElement &value);
void get(Reader &in, AheadElement &value);
void put(Writer &out, const ClientStatus &value);
void get(Reader &in, ClientStatus &value);
void put(Writer &out, const WatchdogStatus &value);
void get(Reader &in, WatchdogStatus &value);
void put(Writer &out, const LimitStatus &value);
void get(Reader &in, LimitStatus &value);
void put(Writer &out, const ServiceStatus &value);
void get(Reader &in, ServiceStatus &value);
void put(Writer &out, api_status_t value);
void get(Reader &in, api_status_t &value);
void put(Writer &out, std::string_view value);
void get(Reader &in, std::string &value);

template <typename T>
void put_all(Writer &out, const std::vector<T> &values) {
    out.u32(static_cast<std::uint32_t>(values.size()));
    for (const T &value : values) {
        put(out, value);
    }
}

// `values` is replaced. Every object takes at least one byte, so the announced number is checked
// against the remaining bytes before any object is created.
template <typename T>
void get_all(Reader &in, std::vector<T> &values) {
    values.clear();
    const std::uint32_t items = in.count(1);
    for (std::uint32_t i = 0; i < items && in.ok(); ++i) {
        get(in, values.emplace_back());
    }
}

// The same for an answer of one object to each of `number` questions; others are invalid, and take
// no memory.
template <typename T>
void get_exactly(Reader &in, std::vector<T> &values, std::size_t number) {
    values.clear();
    if (in.count(1) != number) {
        in.fail();
    }
    for (std::size_t i = 0; i < number && in.ok(); ++i) {
        get(in, values.emplace_back());
    }
}

} // namespace tav
