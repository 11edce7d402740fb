// The table `history` of the database: a row for each record, with a checksum. Rows are added at
// its end and removed many at a time, so that a commit seldom writes more than one page of it.
#pragma once

#include <vector>

#include "service/history.h"
#include "service/rows.h"
#include "service/sqlite.h"

namespace tav {

class HistoryRows {
public:
    // Creates the table.
    static void create(Sqlite &database);
    // Reads the rows, and counts them in `totals`. One that is not as it was written, or is lost,
    // means a damaged database.
    static Records load(Sqlite &database, RowChecks checks, Totals &totals);
    // The rows that can be read, of a damaged table. Adds the number of others to `damaged`.
    static Records salvage(Sqlite &database, std::int64_t &damaged);

    explicit HistoryRows(Sqlite &used);

    // The following are called within a transaction of the caller; only kept() says that it was
    // committed.

    // Stores the records of the changes, and removes the oldest ones if many are beyond the bounds.
    void write(const Edit::Changes &changes, Totals &totals);
    // The same when there is little room: removes all others, and stores only the last one,
    // without its changes.
    void write_least(const Edit::Changes &changes, Totals &totals);
    // Removes what is beyond the bounds; false if nothing is.
    bool trim(Totals &totals);
    // Stores records in an empty table.
    void put_all(const Records &records, Totals &totals);
    void kept() noexcept;

    // The bounds, and the rows of the table.
    void bound(const HistoryBounds &most, const Records &stored);

private:
    void begin() noexcept;
    void remove_surplus(Totals &totals);
    void put(const RecordPtr &record, Totals &totals);
    void remove(const Record &record, Totals &totals);

    Sqlite &database;
    Sqlite::Statement put_row;
    Sqlite::Statement remove_row;
    Kept rows;
    // What the transaction of the caller does to `rows`.
    Records added;
    std::vector<RecordPtr> removed;
    bool emptied = false;
};

} // namespace tav
