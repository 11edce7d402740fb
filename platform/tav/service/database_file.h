// The database file: how it is recognised as one of this service, and how it is created.
#pragma once

#include <string>
#include <vector>

#include "service/sqlite.h"

namespace tav {

// Creates `file`, with its directory, unless it exists: a database that contains only the
// `initial_nodes`, which are paths that check_path accepts, and their parents. The file gets its
// name only when it is complete, so an existing file that is empty or truncated is damaged. Throws
// DatabaseError, also if there is a write-ahead log without its database.
void provide_database(const std::string &file, const std::vector<std::string> &initial_nodes);

// Throws DatabaseError unless the file is a database of this service, has a format that this
// version reads, can be written, and passes SQLite's integrity check.
void check_database(Sqlite &database);

// A transaction that changes nothing, but writes the header of the file again.
extern const char *const empty_transaction;

} // namespace tav
