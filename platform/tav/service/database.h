// The tree on disk: an SQLite database in WAL mode, one row per element.
#ifndef TAV_SERVICE_DATABASE_H
#define TAV_SERVICE_DATABASE_H

#include <string>
#include <vector>

#include "service/sqlite.h"
#include "service/storage.h"

namespace tav {

// What a successful commit promises. Either way it survives the death of the service, transactions
// are kept in their order, and none is ever kept in part.
enum class Durability {
    full,  // each commit is synced: it survives a crash of the machine and a power cut, too
    normal // synced now and then: a power cut may take the last commits
};

class Database : public Storage {
public:
    // Opens `file` and reads its content into `tree`, which holds nothing but the root. A file that
    // does not exist is created with its directory; it then holds the `initial_nodes`. Throws
    // DatabaseError when the file cannot be used: not a database of this kind, damaged, or used by
    // another service. A file that cannot be used is left as it is.
    Database(const std::string &file, Durability promised,
             const std::vector<std::string> &initial_nodes, Tree &tree);

    // False when it failed, for want of space say: the changes are not there then, also not after a
    // later start.
    bool commit(const std::vector<Change> &changes) override;
    const char *promise() const override;

private:
    void use_wal();
    void load(Tree &tree);
    void write(const Change &change);
    void discard_refused();

    Durability durability;
    Sqlite database;
    Sqlite::Statement begin;
    Sqlite::Statement end;
    Sqlite::Statement replace_row;
    Sqlite::Statement delete_row;
    bool refused_in_log = false; // the log on disk may end with a commit that failed
};

} // namespace tav

#endif
