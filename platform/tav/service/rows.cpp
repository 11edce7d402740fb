#include "service/rows.h"

#include <sqlite3.h>

#include <algorithm>
#include <utility>

#include "service/checksum.h"

namespace tav {

namespace {

// The lowest byte first, whatever the processor.
std::uint32_t add_number(std::uint32_t before, std::uint64_t number) {
    char bytes[sizeof number];
    for (char &byte : bytes) {
        byte = static_cast<char>(number & 0xff);
        number >>= 8;
    }
    return crc32({bytes, sizeof bytes}, before);
}

// Zero for the zero of a new table.
std::uint32_t checksum_of_last(std::int64_t last) {
    return last == 0 ? 0 : add_number(0, static_cast<std::uint64_t>(last));
}

std::uint32_t checksum_of(const std::string &path, const Value &value) {
    std::uint32_t sum = add_number(0, static_cast<std::uint64_t>(value.type));
    sum = add_number(sum, static_cast<std::uint64_t>(value.time));
    // With the NUL after it, which no path contains.
    sum = crc32({path.c_str(), path.size() + 1}, sum);
    return crc32(value.text, sum);
}

// Its number is not used again, even without a history.
void note_number(const Pending &pending, Totals &totals) {
    totals.last_record =
        std::max(totals.last_record, static_cast<std::int64_t>(pending.change.number));
}

[[noreturn]] void refuse_row(const Sqlite &database, std::int64_t row, const std::string &what) {
    refuse_damaged(database.name(), "is damaged: row " + std::to_string(row) + " " + what);
}

void check_totals(Sqlite &database, const Totals &found) {
    const Sqlite::Statement statement = database.prepare("SELECT rows, checksums FROM total");
    const bool there = database.next(statement.get());
    const std::int64_t rows = there ? sqlite3_column_int64(statement.get(), 0) : 0;
    if (!there || rows != found.rows ||
        sqlite3_column_int64(statement.get(), 1) != found.checksums) {
        refuse_damaged(database.name(), "is damaged: it has " + std::to_string(found.rows) +
                                            " of " + std::to_string(rows) +
                                            " rows, or some are out of date");
    }
}

} // namespace

void Rows::create(Sqlite &database) {
    database.execute("CREATE TABLE element (path BLOB PRIMARY KEY, type INTEGER NOT NULL,"
                     " text BLOB NOT NULL, time INTEGER NOT NULL, checksum INTEGER NOT NULL)"
                     " WITHOUT ROWID");
    create_totals(database);
}

void Rows::create_totals(Sqlite &database) {
    database.execute("CREATE TABLE total (rows INTEGER NOT NULL, checksums INTEGER NOT NULL,"
                     " records INTEGER NOT NULL, record_checksums INTEGER NOT NULL,"
                     " last_record INTEGER NOT NULL, last_checksum INTEGER NOT NULL);"
                     "INSERT INTO total VALUES (0, 0, 0, 0, 0, 0)");
}

Rows::Rows(Sqlite &used)
    : database(used),
      put_row(used.prepare("INSERT OR REPLACE INTO element (path, type, text, time, checksum)"
                           " VALUES (?, ?, ?, ?, ?)")),
      remove_row(used.prepare("DELETE FROM element WHERE path = ?")),
      store_totals(used.prepare("UPDATE total SET rows = ?, checksums = ?, records = ?,"
                                " record_checksums = ?, last_record = ?, last_checksum = ?")) {}

void Rows::put(const std::string &path, const Value &value, Totals &totals) {
    const std::uint32_t checksum = checksum_of(path, value);
    bind_bytes(put_row.get(), 1, path);
    sqlite3_bind_int(put_row.get(), 2, value.type);
    bind_bytes(put_row.get(), 3, value.text);
    sqlite3_bind_int64(put_row.get(), 4, value.time);
    sqlite3_bind_int64(put_row.get(), 5, checksum);
    database.run(put_row.get());
    ++totals.rows;
    totals.checksums ^= checksum;
}

void Rows::remove(const std::string &path) {
    bind_bytes(remove_row.get(), 1, path);
    database.run(remove_row.get());
}

// Without a condition SQLite frees whole pages and need not write them.
void Rows::remove_all() {
    database.execute("DELETE FROM element");
}

void Rows::discount(const std::string &path, const Value &value, Totals &totals) {
    --totals.rows;
    totals.checksums ^= checksum_of(path, value);
}

std::int64_t Rows::last_record(Sqlite &database) {
    const Sqlite::Statement total =
        database.prepare("SELECT last_record, last_checksum FROM total");
    if (!database.next(total.get()) || sqlite3_column_int64(total.get(), 1) !=
                                           checksum_of_last(sqlite3_column_int64(total.get(), 0))) {
        refuse_damaged(database.name(), "is damaged: the last number of its history");
    }
    return sqlite3_column_int64(total.get(), 0);
}

void Rows::store(const Totals &totals) {
    sqlite3_bind_int64(store_totals.get(), 1, totals.rows);
    sqlite3_bind_int64(store_totals.get(), 2, totals.checksums);
    sqlite3_bind_int64(store_totals.get(), 3, totals.records);
    sqlite3_bind_int64(store_totals.get(), 4, totals.record_checksums);
    sqlite3_bind_int64(store_totals.get(), 5, totals.last_record);
    sqlite3_bind_int64(store_totals.get(), 6, checksum_of_last(totals.last_record));
    database.run(store_totals.get());
}

Totals Rows::put_all(const Tree &tree, const std::vector<PendingPtr> &pending) {
    Totals totals;
    walk(tree, "/", [&](const std::string &path, const Element &element) {
        if (path != "/") {
            put(path, element.value(), totals);
        }
        return true;
    });
    for (const PendingPtr &one : pending) {
        put(pending_path(one->change.number), one->row, totals);
        note_number(*one, totals);
    }
    store(totals);
    return totals;
}

StoredRow stored_row(sqlite3_stmt *statement, bool checked) {
    StoredRow row;
    // A blob and a text of the same bytes are different keys.
    const bool blobs = sqlite3_column_type(statement, 0) == SQLITE_BLOB &&
                       sqlite3_column_type(statement, 2) == SQLITE_BLOB;
    row.path = column_text(statement, 0);
    row.value.type = static_cast<element_type_t>(sqlite3_column_int(statement, 1));
    row.value.text = column_text(statement, 2);
    row.value.time = sqlite3_column_int64(statement, 3);
    row.checksum = checksum_of(row.path, row.value);
    row.intact = blobs && (!checked || sqlite3_column_int64(statement, 4) == row.checksum);
    return row;
}

// The rows come in bytewise order of their paths, so that parents precede their children, each of
// which has a row of its own.
Totals load_rows(Sqlite &database, RowChecks checks, Tree &tree, std::vector<PendingPtr> &pending) {
    const Sqlite::Statement statement = database.prepare(
        checks.checksums ? "SELECT path, type, text, time, checksum FROM element ORDER BY path"
                         : "SELECT path, type, text, time FROM element ORDER BY path");
    std::string previous;
    Totals found;
    while (database.next(statement.get())) {
        StoredRow row = stored_row(statement.get(), checks.checksums);
        ++found.rows;
        found.checksums ^= row.checksum;
        if (!row.intact) {
            refuse_row(database, found.rows, "does not match its checksum");
        }
        if (is_pending_path(row.path)) {
            pending.push_back(read_pending(row.path, row.value));
            if (!pending.back()) {
                refuse_row(database, found.rows, "has no valid unconfirmed change");
            }
            note_number(*pending.back(), found);
            continue;
        }
        const api_status_t status = tree.load(row.path, row.value);
        if (status != api_status_ok || row.path <= previous) {
            refuse_row(database, found.rows,
                       "has an element that this tree cannot have (status " +
                           std::to_string(status) + ")");
        }
        previous = std::move(row.path);
    }
    if (checks.totals) {
        check_totals(database, found);
    }
    return found;
}

} // namespace tav
