// The history: what transactions changed, and who made them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "protocol/messages.h"

namespace tav {

// Asks for the entries with a number above `since` that changed something at or below `path`.
struct HistoryRequest {
    std::string path;
    std::uint64_t since = 0;
};

// What a transaction did to one element. A value that did not exist, or does not exist any more, is
// meaningless; that of a node is of type node.
struct ChangedElement {
    std::string path;
    bool existed = false;
    Value before;
    bool exists = false;
    Value after;
};

// One transaction.
struct HistoryEntry {
    std::uint64_t number = 0; // increases for ever
    std::int64_t time = 0;    // of the transaction, in seconds since 1970
    std::uint32_t uid = 0;
    std::uint32_t pid = 0;
    std::string program; // as the client called itself; empty if it did not
    // The client had registered a watchdog, whose name is then `program`.
    bool service = false;
    std::uint64_t elements = 0; // that it changed
    // In no particular order. Empty if the transaction was too large for its values to be kept, or
    // reverted a change of which nothing was left.
    std::vector<ChangedElement> changes;
};

// The answer to a HistoryRequest is a status. If that is ok, a 1 and an entry follow for each
// entry, oldest first, and then a 0 and the numbers of History.
struct History {
    std::vector<HistoryEntry> entries; // oldest first
    // No entry from this number on was dropped; earlier ones may have been. After the last one if
    // there is no entry.
    std::uint64_t oldest = 1;
    std::uint64_t last = 0; // of the newest entry, wherever its changes are
};

// A change that is reverted unless it is confirmed in time.
struct PendingChange {
    HistoryEntry change;    // with all values
    std::uint32_t term = 0; // milliseconds
    std::uint32_t left = 0; // of them
};
// A request for them has no content. In the answer a 1 and a change follow for each, oldest first,
// and then a 0.

// A transaction that is reverted unless it is confirmed has the milliseconds of its term (32
// bits) before its steps; the answer has the change's number (64 bits) after the statuses, 0 if
// nothing was changed. A confirmation has the number of the change; 0 means the only one of the
// client's user. Its answer is a status and the number.

void put(Writer &out, const HistoryRequest &value);
void get(Reader &in, HistoryRequest &value);
// An element of which a pointer that is null did not or does not exist.
void put_change(Writer &out, std::string_view path, const Value *before, const Value *after);
void put(Writer &out, const ChangedElement &value);
void get(Reader &in, ChangedElement &value);
// All but the changes, which follow as by put_all.
void put_header(Writer &out, const HistoryEntry &value);
void get_header(Reader &in, HistoryEntry &value);
void put(Writer &out, const HistoryEntry &value);
void get(Reader &in, HistoryEntry &value);
void put(Writer &out, const PendingChange &value);
void get(Reader &in, PendingChange &value);

} // namespace tav
