// The file of the database: what marks it as one of this service, and how it comes into being.
#ifndef TAV_SERVICE_DATABASE_FILE_H
#define TAV_SERVICE_DATABASE_FILE_H

#include <string>

#include "service/sqlite.h"

namespace tav {

// Sees to it that `file` exists, making its directory and an empty database when it does not. True
// when it was made now. Under its own name the file is never there in part: an existing one that is
// empty or cut short is a damaged one. Throws DatabaseError, also when there is a write-ahead log
// without the database that it belongs to.
bool provide_database(const std::string &file);

// Throws DatabaseError unless the file bears the marks of this service's databases, in a format
// that this version reads, can be written, and is found intact by SQLite.
void check_database(Sqlite &database);

// A transaction that changes nothing but writes the head of the file once more.
extern const char *const empty_transaction;

} // namespace tav

#endif
