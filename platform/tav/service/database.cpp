#include "service/database.h"

#include <sqlite3.h>

#include "service/database_file.h"
#include "service/log.h"

namespace tav {

namespace {

// Creates the file if it does not exist, and returns its name.
const std::string &provided(const std::string &file,
                            const std::vector<std::string> &initial_nodes) {
    provide_database(file, initial_nodes);
    return file;
}

} // namespace

Database::Database(const std::string &file, Durability promised,
                   const std::vector<std::string> &initial_nodes, Tree &tree)
    : durability(promised), database(provided(file, initial_nodes), SQLITE_OPEN_READWRITE) {
    // Until the file is known to be usable, not even closing may write to it.
    sqlite3_db_config(database.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    // A service locks the file while it runs; a second one fails here.
    database.execute("PRAGMA locking_mode = EXCLUSIVE");
    check_database(database);
    load(tree);
    use_wal();
    database.execute(durability == Durability::full ? "PRAGMA synchronous = FULL"
                                                    : "PRAGMA synchronous = NORMAL");
    begin = database.prepare("BEGIN IMMEDIATE");
    end = database.prepare("COMMIT");
    replace_row = database.prepare(
        "INSERT OR REPLACE INTO element (path, type, text, time) VALUES (?, ?, ?, ?)");
    delete_row = database.prepare("DELETE FROM element WHERE path = ?");
    sqlite3_db_config(database.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 0, nullptr);
}

const char *Database::promise() const {
    return durability == Durability::full ? "full" : "normal";
}

void Database::use_wal() {
    const Sqlite::Statement statement = database.prepare("PRAGMA journal_mode = WAL");
    // A file system may not support WAL. The classic journal is equally safe, but slower.
    if (!database.next(statement.get()) || column_text(statement.get(), 0) != "wal") {
        log_line("database '%s': this file system does not support a write-ahead log",
                 database.name().c_str());
    }
}

// The rows come in bytewise order of their paths, so that parents precede their children, each of
// which has a row of its own. Each must pass the same checks as a client's write; a row that does
// not pass means a damaged database.
void Database::load(Tree &tree) {
    const Sqlite::Statement statement =
        database.prepare("SELECT path, type, text, time FROM element ORDER BY path");
    std::string previous;
    std::size_t rows = 0;
    while (database.next(statement.get())) {
        const std::string path(column_text(statement.get(), 0));
        Value value;
        value.type = static_cast<element_type_t>(sqlite3_column_int(statement.get(), 1));
        value.text = column_text(statement.get(), 2);
        value.time = sqlite3_column_int64(statement.get(), 3);
        const api_status_t status = tree.load(path, value);
        ++rows;
        if (status != api_status_ok || path <= previous) {
            refuse_database(database.name(), "is damaged: row " + std::to_string(rows) +
                                                 " holds no element of this tree (status " +
                                                 std::to_string(status) + ")");
        }
        previous = path;
    }
}

void Database::write(const Change &change) {
    if (!change.after) {
        bind_bytes(delete_row.get(), 1, change.path);
        database.run(delete_row.get());
        return;
    }
    bind_bytes(replace_row.get(), 1, change.path);
    sqlite3_bind_int(replace_row.get(), 2, change.after->type);
    bind_bytes(replace_row.get(), 3, change.after->text);
    sqlite3_bind_int64(replace_row.get(), 4, change.after->time);
    database.run(replace_row.get());
}

// A commit can fail after all of it was written, if the log could not be synced. SQLite discards
// it, but the log still has it completely, and the next start would treat it as done. Another
// commit overwrites it and breaks the chain of checksums after itself.
void Database::discard_refused() {
    if (!refused_in_log) {
        return;
    }
    database.execute(empty_transaction);
    refused_in_log = false;
}

// A sync, or more than a millisecond of work.
bool Database::is_slow(std::size_t changes) const {
    return durability == Durability::full || changes > 64;
}

bool Database::commit(const Edit::Changes &changes) {
    try {
        // Until that commit succeeds, no write can be confirmed.
        discard_refused();
        database.run(begin.get());
        for (const Change &change : changes) {
            if (change.stored()) {
                write(change);
            }
        }
        database.run(end.get());
        return true;
    } catch (const DatabaseError &error) {
        log_line("cannot store a change: %s", error.what());
    }
    database.roll_back();
    refused_in_log = true;
    try {
        discard_refused();
    } catch (const DatabaseError &) {
        database.roll_back(); // the next commit tries again
    }
    return false;
}

} // namespace tav
