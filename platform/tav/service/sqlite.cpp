#include "service/sqlite.h"

#include <sqlite3.h>

#include <cstring>
#include <utility>

#include "service/log_file.h"

namespace tav {

void Sqlite::Closer::operator()(sqlite3 *opened) const {
    sqlite3_close_v2(opened);
}
void Sqlite::Closer::operator()(sqlite3_stmt *statement) const {
    sqlite3_finalize(statement);
}

namespace {

constexpr char how_to_replace[] = "To continue without it, start tavd with --database and the name "
                                  "of a new file, and load a dump into it (tav load)";

} // namespace

void refuse_database(const std::string &file, const std::string &what) {
    throw DatabaseError("database '" + file + "' " + what + "; it was not changed. " +
                        how_to_replace);
}

void refuse_damaged(const std::string &file, const std::string &what) {
    throw DamagedDatabase("database '" + file + "' " + what +
                          "; it was not changed. To keep what can be read of it: tavd --repair "
                          "--database '" +
                          file + "'. " + how_to_replace);
}

Sqlite::Sqlite(std::string file, int flags) : file_name(std::move(file)) {
    // A connection is used by one thread at a time, and nobody asks how much memory SQLite uses.
    // The calls fail, harmlessly, once SQLite is in use.
    sqlite3_config(SQLITE_CONFIG_MULTITHREAD);
    sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
    sqlite3 *opened = nullptr;
    const int result = sqlite3_open_v2(file_name.c_str(), &opened, flags, vfs_with_whole_frames());
    connection.reset(opened);
    if (result != SQLITE_OK) {
        fail();
    }
}

std::string Sqlite::resolved_name() const {
    return sqlite3_db_filename(connection.get(), "main");
}

void Sqlite::fail() const {
    if (!connection) {
        throw DatabaseError("database '" + file_name + "': out of memory");
    }
    const std::string reason = sqlite3_errmsg(connection.get());
    const int system = sqlite3_system_errno(connection.get());
    switch (sqlite3_errcode(connection.get())) {
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
    case SQLITE_ERROR: // the statements are correct, so the tables must be wrong
        refuse_damaged(file_name, "is damaged, or is not a database: " + reason);
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
        throw DatabaseError("database '" + file_name + "' is in use by another process");
    case SQLITE_FULL:
        throw DiskFull("database '" + file_name + "': " + reason);
    case SQLITE_CANTOPEN:
    case SQLITE_IOERR:
        // SQLite's own text only says that it failed.
        throw DatabaseError("database '" + file_name + "': " + reason +
                            (system != 0 ? std::string(": ") + std::strerror(system) : ""));
    default:
        throw DatabaseError("database '" + file_name + "': " + reason);
    }
}

void Sqlite::execute(const std::string &sql) {
    if (sqlite3_exec(connection.get(), sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
        fail();
    }
}

Sqlite::Statement Sqlite::prepare(const char *sql) {
    sqlite3_stmt *statement = nullptr;
    if (sqlite3_prepare_v2(connection.get(), sql, -1, &statement, nullptr) != SQLITE_OK) {
        fail();
    }
    return Statement(statement);
}

std::int64_t Sqlite::number(const char *sql) {
    const Statement statement = prepare(sql);
    return number(statement.get());
}

std::int64_t Sqlite::number(sqlite3_stmt *statement) {
    if (!next(statement)) {
        refuse_damaged(file_name, "is damaged");
    }
    const std::int64_t result = sqlite3_column_int64(statement, 0);
    sqlite3_reset(statement);
    return result;
}

void Sqlite::run(sqlite3_stmt *statement) {
    const int result = sqlite3_step(statement);
    // Returns the error of the last step again, if there was one; the connection keeps its text.
    sqlite3_reset(statement);
    if (result != SQLITE_DONE) {
        fail();
    }
    sqlite3_clear_bindings(statement);
}

bool Sqlite::next(sqlite3_stmt *statement) {
    const int result = sqlite3_step(statement);
    if (result != SQLITE_ROW && result != SQLITE_DONE) {
        fail();
    }
    return result == SQLITE_ROW;
}

void Sqlite::roll_back() noexcept {
    if (sqlite3_get_autocommit(connection.get()) == 0) {
        sqlite3_exec(connection.get(), "ROLLBACK", nullptr, nullptr, nullptr);
    }
}

std::string_view column_text(sqlite3_stmt *statement, int column) {
    const void *data = sqlite3_column_blob(statement, column);
    const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement, column));
    return data == nullptr ? std::string_view()
                           : std::string_view(static_cast<const char *>(data), size);
}

void bind_bytes(sqlite3_stmt *statement, int index, const std::string &text) {
    sqlite3_bind_blob64(statement, index, text.data(), text.size(), nullptr);
}

} // namespace tav
