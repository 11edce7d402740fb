// The file of the database: what marks it as one of this service, and how it comes into being.
#ifndef TAV_SERVICE_DATABASE_FILE_H
#define TAV_SERVICE_DATABASE_FILE_H

#include <string>
#include <vector>

#include "service/sqlite.h"

namespace tav {

// Makes `file` and its directory unless the file exists: a database that holds nothing but the
// `initial_nodes`, paths that check_path accepts, and the nodes above them. Under its own name the
// file is never there in part: an existing one that is empty or cut short is a damaged one. Throws
// DatabaseError, also when there is a write-ahead log without the database that it belongs to.
void provide_database(const std::string &file, const std::vector<std::string> &initial_nodes);

// Throws DatabaseError unless the file bears the marks of this service's databases, in a format
// that this version reads, can be written, and is found intact by SQLite.
void check_database(Sqlite &database);

// A transaction that changes nothing but writes the head of the file once more.
extern const char *const empty_transaction;

} // namespace tav

#endif
