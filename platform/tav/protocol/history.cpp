#include "protocol/history.h"

namespace tav {

namespace {

constexpr std::uint8_t change_existed = 1;
constexpr std::uint8_t change_exists = 2;

} // namespace

void put(Writer &out, const HistoryRequest &value) {
    out.text(value.path);
    out.u64(value.since);
}
void get(Reader &in, HistoryRequest &value) {
    value.path = in.text();
    value.since = in.u64();
}

void put_change(Writer &out, std::string_view path, const Value *before, const Value *after) {
    out.text(path);
    out.u8(static_cast<std::uint8_t>((before != nullptr ? change_existed : 0) |
                                     (after != nullptr ? change_exists : 0)));
    for (const Value *value : {before, after}) {
        if (value != nullptr) {
            put(out, *value);
        }
    }
}
void put(Writer &out, const ChangedElement &value) {
    put_change(out, value.path, value.existed ? &value.before : nullptr,
               value.exists ? &value.after : nullptr);
}
void get(Reader &in, ChangedElement &value) {
    value.path = in.text();
    const std::uint8_t flags = in.u8();
    value.existed = (flags & change_existed) != 0;
    value.exists = (flags & change_exists) != 0;
    if (flags > (change_existed | change_exists)) {
        in.fail();
    }
    if (value.existed) {
        get(in, value.before);
    }
    if (value.exists) {
        get(in, value.after);
    }
}

void put_header(Writer &out, const HistoryEntry &value) {
    out.u64(value.number);
    out.i64(value.time);
    out.u32(value.uid);
    out.u32(value.pid);
    out.text(value.program);
    out.u8(value.service ? 1 : 0);
    out.u64(value.elements);
}
void get_header(Reader &in, HistoryEntry &value) {
    value.number = in.u64();
    value.time = in.i64();
    value.uid = in.u32();
    value.pid = in.u32();
    value.program = in.text();
    const std::uint8_t service = in.u8();
    value.service = service == 1;
    if (service > 1) {
        in.fail();
    }
    value.elements = in.u64();
}

void put(Writer &out, const HistoryEntry &value) {
    put_header(out, value);
    put_all(out, value.changes);
}
void get(Reader &in, HistoryEntry &value) {
    get_header(in, value);
    get_all(in, value.changes);
}

void put(Writer &out, const PendingChange &value) {
    put(out, value.change);
    out.u32(value.term);
    out.u32(value.left);
}
void get(Reader &in, PendingChange &value) {
    get(in, value.change);
    value.term = in.u32();
    value.left = in.u32();
}

} // namespace tav
