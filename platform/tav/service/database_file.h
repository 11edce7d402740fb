// The database file: how it is recognised as one of this service, and how it is created.
#pragma once

#include <string>
#include <vector>

#include "client/unique_fd.h"
#include "service/history_rows.h"
#include "service/rows.h"
#include "service/sqlite.h"

namespace tav {

// Creates `file`, with its directory, unless it exists: a database that contains only the
// `initial_nodes`, which are paths that check_path accepts, and their parents. The file gets its
// name only when it is complete, so an existing file that is empty or truncated is damaged. Throws
// DatabaseError, also if others than root and this process's user can write to the directory, and
// if there is a write-ahead log without its database.
void provide_database(const std::string &file, const std::vector<std::string> &initial_nodes);

// Creates `file`, instead of one that an earlier start or repair has not finished, with the content
// of `tree`, the history `records`, and what waits for its confirmation. Throws DatabaseError.
void create_database(const std::string &file, const Tree &tree, const Records &records = {},
                     const std::vector<PendingPtr> &pending = {});

// Adds the node at `path` and those above it, unless they exist.
void add_nodes(Tree &tree, const std::string &path);

// The user version in the header of the file.
struct Version {
    // The first one has no checksums and no totals, the second no history, and the third no changes
    // that wait for their confirmation.
    std::int64_t format = 4;
    // Commits are not synced, and the totals are not used.
    bool unsynced = false;

    std::int64_t number() const;
};
constexpr std::int64_t first_format = 1;
constexpr std::int64_t second_format = 2;
RowChecks row_checks(const Version &version);

// Opens and locks the file until the descriptor is closed. Throws DatabaseError, also if another
// service has locked it.
UniqueFd lock_database(const std::string &file);

// Throws DatabaseError if the log of the database has damage that no power cut can have caused.
// What SQLite will drop otherwise is logged. `locked`: see lock_database.
void check_log_of(const std::string &file, int locked);

// Throws DatabaseError unless the file is a database of this service, has a format that this
// version reads, can be written, and passes SQLite's integrity check.
Version check_database(Sqlite &database);

// Reads everything; `tree` has only the root. Throws DamagedDatabase.
Totals load_database(Sqlite &database, const Version &version, Tree &tree, Records &records,
                     std::vector<PendingPtr> &pending);

// Brings a database of an earlier format to the current one, all or nothing. `tree` and `totals`
// are its content.
void migrate_database(Sqlite &database, Version &version, Totals &totals, const Tree &tree);

// Writes the header and the totals, also if they are the same as before.
void write_version(Sqlite &database, const Version &version, const Totals &totals);

} // namespace tav
