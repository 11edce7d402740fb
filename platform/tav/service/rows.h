// The tables of the database. `element` has a row for each element except the root, with a
// checksum, and one for each change that waits for its confirmation (see pending.h). `history` is
// described in history_rows.h. `total` has one row, from which a row is noticed that was lost or
// that is out of date. Writing it with each commit doubles what goes to the log. That is little
// beside a sync, but not without one, so it is not used while commits are not synced.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "service/pending.h"
#include "service/sqlite.h"
#include "service/tree.h"

namespace tav {

// The content of `total`, if it is used.
struct Totals {
    std::int64_t rows = 0;
    std::uint32_t checksums = 0; // of all rows, combined with XOR
    // The same of the table `history`.
    std::int64_t records = 0;
    std::uint32_t record_checksums = 0;
    std::int64_t last_record = 0; // the last number ever used
};

// The statements that change the tables, within a transaction of the caller.
class Rows {
public:
    // Creates the tables `element` and `total`.
    static void create(Sqlite &database);
    static void create_totals(Sqlite &database);

    explicit Rows(Sqlite &used);

    // Stores a row and counts it in `totals`.
    void put(const std::string &path, const Value &value, Totals &totals);
    void remove(const std::string &path);
    void remove_all();
    // Takes a row that is being replaced or removed out of `totals`.
    static void discount(const std::string &path, const Value &value, Totals &totals);
    void store(const Totals &totals);
    // The last number of the history as it was stored, also if the totals are not used.
    static std::int64_t last_record(Sqlite &database);
    // Stores a whole tree, and what waits for its confirmation, in empty tables.
    Totals put_all(const Tree &tree, const std::vector<PendingPtr> &pending = {});

private:
    Sqlite &database;
    Sqlite::Statement put_row;
    Sqlite::Statement remove_row;
    Sqlite::Statement store_totals;
};

// What the rows can be compared with.
struct RowChecks {
    bool checksums = true; // those of the first format have none
    bool totals = true;
};

// A row as it is in the table, checked against its checksum if it has one.
struct StoredRow {
    std::string path;
    Value value;
    std::uint32_t checksum = 0; // computed
    bool intact = false;
};
// The current row of a statement that selects path, type, text, time and, if `checked`, checksum.
StoredRow stored_row(sqlite3_stmt *statement, bool checked);

// Reads the rows into `tree`, which has only the root, and those of changes that wait for their
// confirmation into `pending`. A row that is not as it was written, or no element, means a damaged
// database.
Totals load_rows(Sqlite &database, RowChecks checks, Tree &tree, std::vector<PendingPtr> &pending);

} // namespace tav
