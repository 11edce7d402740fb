// The tree on disk: an SQLite database in WAL mode, one row per element.
#ifndef TAV_SERVICE_DATABASE_H
#define TAV_SERVICE_DATABASE_H

#include <memory>
#include <stdexcept>
#include <string>

#include "service/storage.h"

struct sqlite3;
struct sqlite3_stmt;

namespace tav {

class DatabaseError : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

class Database : public Storage {
public:
    // Opens `file`, creating it when it does not exist, and reads its content into `tree`, which
    // holds nothing but the root. `fresh` tells whether it was created now. Throws DatabaseError
    // when the file cannot be used: not a database of this kind, damaged, or used by another
    // service. A file that cannot be used is left as it is.
    Database(const std::string &file, Tree &tree, bool &fresh);

    // On success the changes survive the death of the service and of the machine.
    bool commit(const std::vector<Change> &changes) override;

private:
    struct Closer {
        void operator()(sqlite3 *connection) const;
        void operator()(sqlite3_stmt *statement) const;
    };
    using Statement = std::unique_ptr<sqlite3_stmt, Closer>;

    void execute(const char *sql);
    std::int64_t query_number(const char *sql);
    Statement prepare(const char *sql);
    void check_ours();
    void use_wal();
    void create_schema();
    void load(Tree &tree);
    void write(const Change &change);
    void step(sqlite3_stmt *statement);
    [[noreturn]] void fail() const;

    std::string name;
    std::unique_ptr<sqlite3, Closer> connection;
    Statement replace_row;
    Statement delete_row;
};

} // namespace tav

#endif
