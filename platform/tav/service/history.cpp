#include "service/history.h"

#include <algorithm>
#include <utility>

#include "service/path.h"

namespace tav {

namespace {

// What a record takes besides its entry, in memory and in the database.
constexpr std::size_t around = 128;

std::size_t cost(const Record &record) {
    return record.entry.size() + around;
}

// Whether the values of all changes fit into `bytes`.
bool fits(const Edit::Changes &changes, std::size_t bytes) {
    constexpr std::size_t least = 32; // of a change besides its texts
    for (const Change &change : changes) {
        const std::size_t size = least + change.path.size() +
                                 (change.before ? change.before->text.size() : 0) +
                                 (change.after ? change.after->text.size() : 0);
        if (size > bytes) {
            return false;
        }
        bytes -= size;
    }
    return true;
}

std::string frame_body(Writer &out) {
    return out.finish().substr(length_bytes);
}

} // namespace

RecordPtr read_record(std::string text) {
    Reader in(text);
    HistoryEntry entry;
    get(in, entry);
    if (!in.finished()) {
        return nullptr;
    }
    return std::make_shared<Record>(Record{entry.number, entry.service, std::move(text)});
}

RecordPtr without_changes(const Record &record) {
    Reader in(record.entry);
    HistoryEntry entry;
    get_header(in, entry);
    Writer out;
    put(out, entry);
    return std::make_shared<Record>(Record{record.number, record.service, frame_body(out)});
}

bool concerns(const Record &record, std::string_view path) {
    Reader in(record.entry);
    HistoryEntry header;
    get_header(in, header);
    const std::uint32_t changes = in.count(1);
    ChangedElement change;
    for (std::uint32_t i = 0; i < changes; ++i) {
        get(in, change);
        if (is_at_or_below(change.path, path)) {
            return true;
        }
    }
    return changes == 0;
}

void Kept::add(Records &more) noexcept {
    while (!more.empty()) {
        const Record &first = *more.begin()->second;
        Class &its = of(first);
        its.bytes += cost(first);
        its.records.insert(its.records.end(), more.extract(more.begin()));
    }
}

void Kept::remove(const Record &record) noexcept {
    Class &its = of(record);
    const auto found = its.records.find(record.number);
    if (found != its.records.end()) {
        its.bytes -= cost(*found->second);
        its.records.erase(found);
    }
}

void Kept::clear() noexcept {
    for (Class &one : classes) {
        one.records.clear();
        one.bytes = 0;
    }
}

bool Kept::beyond(std::size_t transactions, std::size_t bytes) const {
    return std::any_of(classes.begin(), classes.end(), [&](const Class &one) {
        return one.records.size() > bounds.transactions + transactions ||
               one.bytes > bounds.bytes + bytes;
    });
}

RecordPtr Kept::surplus() const {
    for (const Class &one : classes) {
        if (one.records.size() > bounds.transactions || one.bytes > bounds.bytes) {
            return one.records.begin()->second;
        }
    }
    return nullptr;
}

std::vector<RecordPtr> Kept::all_surplus() const {
    std::vector<RecordPtr> all;
    for (const Class &one : classes) {
        std::size_t left = one.records.size();
        std::size_t bytes = one.bytes;
        for (const auto &[number, record] : one.records) {
            if (left <= bounds.transactions && bytes <= bounds.bytes) {
                break;
            }
            all.push_back(record);
            --left;
            bytes -= cost(*record);
        }
    }
    return all;
}

RecordPtr Kept::next(std::uint64_t number) const {
    RecordPtr first;
    for (const Class &one : classes) {
        const auto found = one.records.upper_bound(number);
        if (found != one.records.end() && (!first || found->first < first->number)) {
            first = found->second;
        }
    }
    return first;
}

void HistoryLog::begin(const HistoryBounds &most, Records &stored, std::uint64_t last_number) {
    bounds = most;
    kept.bound(most);
    add(stored);
    if (last_number > last_added) {
        last_added = last_number;
        complete_from = last_number + 1;
    }
    next_number = last_added + 1;
}

std::string HistoryLog::entry(const Edit::Changes &changes, const Author &author, std::int64_t time,
                              std::size_t most_bytes) const {
    HistoryEntry entry;
    entry.number = next_number;
    entry.time = time;
    entry.uid = author.uid;
    entry.pid = author.pid;
    entry.program = author.program;
    entry.service = author.service;
    entry.elements = changes.size();
    Writer out;
    put_header(out, entry);
    // With its header, and with what a record takes besides.
    constexpr std::size_t reserved = 512;
    if (fits(changes, most_bytes - reserved)) {
        out.u32(static_cast<std::uint32_t>(changes.size()));
        for (const Change &change : changes) {
            put_change(out, change.path, change.before.get(), change.after.get());
        }
    } else {
        out.u32(0);
    }
    return frame_body(out);
}

void HistoryLog::record(const Edit::Changes &changes, Change &carrier, const Author &author,
                        std::int64_t time, Records &staged) {
    if (!on()) {
        return;
    }
    auto made = std::make_shared<Record>(
        Record{next_number, author.service, entry(changes, author, time, bounds.bytes)});
    staged.emplace_hint(staged.end(), next_number, made);
    carrier.record = std::move(made);
    ++next_number;
}

void HistoryLog::add(Records &stored) noexcept {
    for (const auto &[number, record] : stored) {
        complete_from = number == last_added + 1 ? complete_from : number;
        last_added = number;
    }
    next_number = std::max(next_number, last_added + 1);
    kept.add(stored);
    while (const RecordPtr old = kept.surplus()) {
        complete_from = std::max(complete_from, old->number + 1);
        kept.remove(*old);
    }
}

void HistoryLog::drop(Records &refused) noexcept {
    if (!refused.empty()) {
        next_number = std::min(next_number, refused.begin()->first);
        refused.clear();
    }
}

} // namespace tav
