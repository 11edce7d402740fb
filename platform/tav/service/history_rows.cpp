#include "service/history_rows.h"

#include <sqlite3.h>

#include <algorithm>
#include <utility>

#include "service/checksum.h"

namespace tav {

namespace {

// So much beyond the bounds the table may become, so that many rows are removed at once.
constexpr std::size_t spare_transactions = 64;
constexpr std::size_t spare_bytes = std::size_t{64} << 10;

constexpr const char *all_rows = "SELECT number, entry, checksum FROM history ORDER BY number";

// The record of the current row, or null if it is not as it was written.
RecordPtr stored_record(sqlite3_stmt *statement) {
    const std::string_view entry = column_text(statement, 1);
    if (sqlite3_column_type(statement, 1) != SQLITE_BLOB ||
        sqlite3_column_int64(statement, 2) != crc32(entry)) {
        return nullptr;
    }
    RecordPtr record = read_record(std::string(entry));
    const auto number = static_cast<std::uint64_t>(sqlite3_column_int64(statement, 0));
    return record && record->number == number ? record : nullptr;
}

void count(const Record &record, std::uint32_t checksum, Totals &totals) {
    ++totals.records;
    totals.record_checksums ^= checksum;
    totals.last_record = std::max(totals.last_record, static_cast<std::int64_t>(record.number));
}

} // namespace

void HistoryRows::create(Sqlite &database) {
    database.execute("CREATE TABLE history (number INTEGER PRIMARY KEY, entry BLOB NOT NULL,"
                     " checksum INTEGER NOT NULL)");
}

Records HistoryRows::load(Sqlite &database, RowChecks checks, Totals &totals) {
    Records records;
    Totals found;
    const Sqlite::Statement rows = database.prepare(all_rows);
    while (database.next(rows.get())) {
        RecordPtr record = stored_record(rows.get());
        if (!record) {
            refuse_damaged(database.name(), "is damaged: entry " +
                                                std::to_string(found.records + 1) +
                                                " of the history does not match its checksum");
        }
        count(*record, crc32(record->entry), found);
        records.emplace_hint(records.end(), record->number, record);
    }
    const std::int64_t last = Rows::last_record(database);
    const Sqlite::Statement total = database.prepare("SELECT records, record_checksums FROM total");
    if (checks.totals &&
        (!database.next(total.get()) || sqlite3_column_int64(total.get(), 0) != found.records ||
         sqlite3_column_int64(total.get(), 1) != found.record_checksums)) {
        refuse_damaged(database.name(), "is damaged: entries of its history are lost");
    }
    totals.records = found.records;
    totals.record_checksums = found.record_checksums;
    totals.last_record = std::max({totals.last_record, found.last_record, last});
    return records;
}

Records HistoryRows::salvage(Sqlite &database, std::int64_t &damaged) {
    Records records;
    for (const char *order : {"", " DESC"}) {
        try {
            const Sqlite::Statement rows =
                database.prepare((std::string(all_rows) + order).c_str());
            while (database.next(rows.get())) {
                const RecordPtr record = stored_record(rows.get());
                if (!record) {
                    damaged += *order == '\0' ? 1 : 0;
                } else if (!records.emplace(record->number, record).second) {
                    break; // these were read forwards
                }
            }
        } catch (const DatabaseError &) {
            continue; // up to the first page that cannot be read, from each end
        }
    }
    return records;
}

HistoryRows::HistoryRows(Sqlite &used)
    : database(used), put_row(used.prepare("INSERT INTO history VALUES (?, ?, ?)")),
      remove_row(used.prepare("DELETE FROM history WHERE number = ?")) {}

void HistoryRows::put(const RecordPtr &record, Totals &totals) {
    sqlite3_bind_int64(put_row.get(), 1, static_cast<std::int64_t>(record->number));
    bind_bytes(put_row.get(), 2, record->entry);
    const std::uint32_t checksum = crc32(record->entry);
    sqlite3_bind_int64(put_row.get(), 3, checksum);
    added.emplace(record->number, record);
    database.run(put_row.get());
    count(*record, checksum, totals);
}

void HistoryRows::remove(const Record &record, Totals &totals) {
    sqlite3_bind_int64(remove_row.get(), 1, static_cast<std::int64_t>(record.number));
    database.run(remove_row.get());
    --totals.records;
    totals.record_checksums ^= crc32(record.entry);
}

void HistoryRows::begin() noexcept {
    added.clear();
    removed.clear();
    emptied = false;
}

void HistoryRows::write(const Edit::Changes &changes, Totals &totals) {
    begin();
    for (const Change &change : changes) {
        if (change.record) {
            put(change.record, totals);
        }
    }
    if (rows.beyond(spare_transactions, spare_bytes)) {
        remove_surplus(totals);
    }
}

void HistoryRows::remove_surplus(Totals &totals) {
    removed = rows.all_surplus();
    for (const RecordPtr &record : removed) {
        remove(*record, totals);
    }
}

void HistoryRows::write_least(const Edit::Changes &changes, Totals &totals) {
    begin();
    const auto last = std::find_if(changes.rbegin(), changes.rend(),
                                   [](const Change &change) { return change.record != nullptr; });
    if (last == changes.rend()) {
        return;
    }
    // Without a condition SQLite frees whole pages and need not write them.
    database.execute("DELETE FROM history");
    totals.records = 0;
    totals.record_checksums = 0;
    emptied = true;
    put(without_changes(*last->record), totals);
}

void HistoryRows::kept() noexcept {
    if (emptied) {
        rows.clear();
    }
    for (const RecordPtr &record : removed) {
        rows.remove(*record);
    }
    rows.add(added);
    begin();
}

void HistoryRows::bound(const HistoryBounds &most, const Records &stored) {
    rows.bound(most);
    Records all = stored;
    rows.add(all);
}

bool HistoryRows::trim(Totals &totals) {
    begin();
    remove_surplus(totals);
    return !removed.empty();
}

void HistoryRows::put_all(const Records &records, Totals &totals) {
    for (const auto &[number, record] : records) {
        put(record, totals);
    }
}

} // namespace tav
