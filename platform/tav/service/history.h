// The history in memory: the last transactions, within bounds.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "protocol/history.h"
#include "protocol/limits.h"
#include "service/edit.h"

namespace tav {

// Who makes a transaction.
struct Author {
    std::uint32_t uid = 0;
    std::uint32_t pid = 0;
    std::string program;
    bool service = false;
};

// An entry as it is sent and stored; shared and never changed.
struct Record {
    std::uint64_t number = 0;
    bool service = false;
    std::string entry;
};
using RecordPtr = std::shared_ptr<const Record>;
using Records = std::map<std::uint64_t, RecordPtr>; // by number

// Empty if it is no entry.
RecordPtr read_record(std::string entry);
// The same entry without its changes.
RecordPtr without_changes(const Record &record);
// Whether the entry changed something at or below the path, or may have.
bool concerns(const Record &record, std::string_view path);

// The limits for the transactions of operators. They apply separately to those of services, which
// must not displace the former.
struct HistoryBounds {
    std::size_t transactions = 0; // 0: there is no history
    std::size_t bytes = limits::history_bytes;
};

// Records in the order of their numbers, those of services apart.
class Kept {
public:
    void bound(const HistoryBounds &most) { bounds = most; }
    // Takes them.
    void add(Records &more) noexcept;
    void remove(const Record &record) noexcept;
    void clear() noexcept;
    // Whether the operators' or the services' records exceed the bounds by more than this.
    bool beyond(std::size_t transactions = 0, std::size_t bytes = 0) const;
    // The oldest of those that are too many; null if there is none.
    RecordPtr surplus() const;
    // All that are too many, oldest first.
    std::vector<RecordPtr> all_surplus() const;
    // The first one with a greater number; null at the end.
    RecordPtr next(std::uint64_t number) const;

private:
    struct Class {
        Records records;
        std::size_t bytes = 0;
    };
    Class &of(const Record &record) { return classes[record.service ? 1 : 0]; }

    HistoryBounds bounds;
    std::array<Class, 2> classes; // of operators and of services
};

class HistoryLog {
public:
    // Continues after what was stored: those records, which it takes, and the last number ever
    // used.
    void begin(const HistoryBounds &most, Records &stored, std::uint64_t last_number);
    bool on() const { return bounds.transactions > 0; }

    // The entry of the transaction that comes next; without its changes if they need more bytes.
    std::string entry(const Edit::Changes &changes, const Author &author, std::int64_t time,
                      std::size_t most_bytes) const;
    // Makes a record of the changes, unless there is no history; it goes to `staged` and to
    // `carrier`, a change of the same transaction of the database. `time`: in seconds since 1970.
    // May throw std::bad_alloc, and has then no effect.
    void record(const Edit::Changes &changes, Change &carrier, const Author &author,
                std::int64_t time, Records &staged);
    // The next transaction has another number, even without a history.
    void use_number() noexcept { next_number += on() ? 0U : 1U; }
    // The transactions of these records were stored, or will never be. Takes the records.
    void add(Records &stored) noexcept;
    void drop(Records &refused) noexcept;

    // Of the stored ones: see Kept::next.
    RecordPtr next(std::uint64_t number) const { return kept.next(number); }
    // See History.
    std::uint64_t oldest() const { return complete_from; }
    std::uint64_t last() const { return last_added; }

private:
    HistoryBounds bounds;
    Kept kept;
    std::uint64_t complete_from = 1;
    std::uint64_t last_added = 0;
    std::uint64_t next_number = 1;
};

} // namespace tav
