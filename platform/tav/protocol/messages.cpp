#include "protocol/messages.h"

namespace tav {

namespace {

// Types and statuses are sent as one byte. Numbers that this version does not know are passed on
// unchanged: the enumerations can hold them, and their users treat them as "something else".
element_type_t get_type(Reader &in) {
    return static_cast<element_type_t>(in.u8());
}
void put_type(Writer &out, element_type_t type) {
    out.u8(static_cast<std::uint8_t>(type));
}

void put_i32(Writer &out, std::int32_t value) {
    out.u32(static_cast<std::uint32_t>(value));
}
std::int32_t get_i32(Reader &in) {
    return static_cast<std::int32_t>(in.u32());
}

void put_bool(Writer &out, bool value) {
    out.u8(value ? 1 : 0);
}

// Anything but 0 and 1 is a malformed message.
bool get_bool(Reader &in) {
    const std::uint8_t value = in.u8();
    if (value > 1) {
        in.fail();
    }
    return value == 1;
}

} // namespace

void put(Writer &out, api_status_t value) {
    out.u8(static_cast<std::uint8_t>(value));
}
void get(Reader &in, api_status_t &value) {
    value = static_cast<api_status_t>(in.u8());
}

void put(Writer &out, std::string_view value) {
    out.text(value);
}
void get(Reader &in, std::string &value) {
    value = in.text();
}

void put(Writer &out, const RequestHeader &value) {
    out.u8(static_cast<std::uint8_t>(value.op));
    out.u32(value.serial);
}
void get(Reader &in, RequestHeader &value) {
    value.op = static_cast<Op>(in.u8());
    value.serial = in.u32();
}

void put(Writer &out, const ReplyHeader &value) {
    out.u32(value.serial);
    out.u8(static_cast<std::uint8_t>((value.drain ? reply_drain : 0) |
                                     (value.more ? reply_more : 0) |
                                     (value.notice ? reply_notice : 0)));
}
void get(Reader &in, ReplyHeader &value) {
    value.serial = in.u32();
    const std::uint8_t flags = in.u8();
    value.drain = (flags & reply_drain) != 0;
    value.more = (flags & reply_more) != 0;
    value.notice = (flags & reply_notice) != 0;
    if (flags > (reply_drain | reply_more | reply_notice)) {
        in.fail();
    }
}

std::string mark_more(std::string frame) {
    frame[reply_flags_at] =
        static_cast<char>(static_cast<unsigned char>(frame[reply_flags_at]) | reply_more);
    return frame;
}

void put(Writer &out, const Farewell &value) {
    put(out, value.status);
    out.text(value.reason);
}
void get(Reader &in, Farewell &value) {
    get(in, value.status);
    value.reason = in.text();
}

void put(Writer &out, const Hello &value) {
    out.u32(value.magic);
    out.u32(value.version);
}
void get(Reader &in, Hello &value) {
    value.magic = in.u32();
    value.version = in.u32();
}

void put(Writer &out, const Ticket &value) {
    out.u64(value.session);
    out.u64(value.token);
}
void get(Reader &in, Ticket &value) {
    value.session = in.u64();
    value.token = in.u64();
}

void put(Writer &out, const Value &value) {
    put_type(out, value.type);
    out.text(value.text);
    out.i64(value.time);
}
void get(Reader &in, Value &value) {
    value.type = get_type(in);
    value.text = in.text();
    value.time = in.i64();
}

void put(Writer &out, const Event &value) {
    put_i32(out, value.command);
    out.text(value.path);
}
void get(Reader &in, Event &value) {
    value.command = get_i32(in);
    value.path = in.text();
}

void put(Writer &out, const Item &value) {
    out.u8(static_cast<std::uint8_t>(value.kind));
    out.text(value.path);
    if (has_value(value.kind)) {
        put(out, value.value);
    }
}
void get(Reader &in, Item &value) {
    const std::uint8_t kind = in.u8();
    if (kind < static_cast<std::uint8_t>(ItemKind::set) ||
        kind > static_cast<std::uint8_t>(ItemKind::require_absent)) {
        in.fail();
        return;
    }
    value.kind = static_cast<ItemKind>(kind);
    value.path = in.text();
    if (has_value(value.kind)) {
        get(in, value.value);
    }
}

void put_leaf(Writer &out, api_status_t status, const Value *value) {
    put(out, status);
    if (status == api_status_ok) {
        put(out, *value);
    }
}
void put(Writer &out, const LeafAnswer &value) {
    put_leaf(out, value.status, &value.value);
}
void get(Reader &in, LeafAnswer &value) {
    get(in, value.status);
    if (value.status == api_status_ok) {
        get(in, value.value);
    }
}

void put(Writer &out, const Child &value) {
    out.text(value.name);
    put_type(out, value.type);
}
void get(Reader &in, Child &value) {
    value.name = in.text();
    value.type = get_type(in);
}

void put(Writer &out, const Registration &value) {
    out.text(value.path);
    out.u32(value.event);
    put_bool(out, value.own_changes);
}
void get(Reader &in, Registration &value) {
    value.path = in.text();
    value.event = in.u32();
    value.own_changes = get_bool(in);
}

void put(Writer &out, const WatchdogRequest &value) {
    out.text(value.name);
    put_i32(out, value.period);
    put_bool(out, value.enabled);
}
void get(Reader &in, WatchdogRequest &value) {
    value.name = in.text();
    value.period = get_i32(in);
    value.enabled = get_bool(in);
}

void put_element(Writer &out, std::string_view path, const Value &value) {
    out.text(path);
    put(out, value);
}
void put(Writer &out, const DumpElement &value) {
    put_element(out, value.path, value.value);
}
void get(Reader &in, DumpElement &value) {
    value.path = in.text();
    get(in, value.value);
}

void put(Writer &out, const AheadElement &value) {
    out.u8(value.depth);
    if (value.depth == depth_end || value.depth == depth_too_large) {
        return;
    }
    put_type(out, value.type);
    out.text(value.name);
    if (value.type != element_type_node) {
        out.text(value.text);
        out.i64(value.time);
    }
}
void get(Reader &in, AheadElement &value) {
    value = {};
    value.depth = in.u8();
    if (value.depth == depth_end || value.depth == depth_too_large) {
        return;
    }
    value.type = get_type(in);
    value.name = in.text();
    if (value.type != element_type_node) {
        value.text = in.text();
        value.time = in.i64();
    }
}

void put(Writer &out, const ClientStatus &value) {
    out.u64(value.session);
    out.u32(value.pid);
    out.u32(value.uid);
    put_bool(out, value.may_write);
    out.u32(value.registrations);
    out.u64(value.pending);
    put_bool(out, value.signalled);
    out.u64(value.listed);
}
void get(Reader &in, ClientStatus &value) {
    value.session = in.u64();
    value.pid = in.u32();
    value.uid = in.u32();
    value.may_write = get_bool(in);
    value.registrations = in.u32();
    value.pending = in.u64();
    value.signalled = get_bool(in);
    value.listed = in.u64();
}

void put(Writer &out, const WatchdogStatus &value) {
    out.text(value.name);
    out.u32(value.pid);
    put_i32(out, value.period);
    out.u64(value.since);
    out.u8(static_cast<std::uint8_t>(value.state));
}
void get(Reader &in, WatchdogStatus &value) {
    value.name = in.text();
    value.pid = in.u32();
    value.period = get_i32(in);
    value.since = in.u64();
    const std::uint8_t state = in.u8();
    if (state > static_cast<std::uint8_t>(WatchdogState::gone)) {
        in.fail();
        return;
    }
    value.state = static_cast<WatchdogState>(state);
}

void put(Writer &out, const LimitStatus &value) {
    out.text(value.name);
    out.u64(value.used);
    out.u64(value.limit);
    out.u64(value.refused);
}
void get(Reader &in, LimitStatus &value) {
    value.name = in.text();
    value.used = in.u64();
    value.limit = in.u64();
    value.refused = in.u64();
}

void put(Writer &out, const ServiceStatus &value) {
    out.u32(value.pid);
    out.text(value.database);
    out.text(value.durability);
    out.u64(value.uptime);
    out.u64(value.revision);
    out.u64(value.nodes);
    out.u64(value.leaves);
    out.u64(value.overflowed);
    put_all(out, value.limits);
    put_all(out, value.clients);
    put_all(out, value.watchdogs);
}
void get(Reader &in, ServiceStatus &value) {
    value.pid = in.u32();
    value.database = in.text();
    value.durability = in.text();
    value.uptime = in.u64();
    value.revision = in.u64();
    value.nodes = in.u64();
    value.leaves = in.u64();
    value.overflowed = in.u64();
    get_all(in, value.limits);
    get_all(in, value.clients);
    get_all(in, value.watchdogs);
}

} // namespace tav
