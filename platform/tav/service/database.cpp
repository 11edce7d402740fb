#include "service/database.h"

#include <sqlite3.h>

#include <cinttypes>

#include "service/log.h"

namespace tav {

namespace {

// "tavd" in the file's header, so that no other program's database is taken for ours.
constexpr std::int64_t application_id = 0x74617664;
constexpr std::int64_t schema_version = 1;

std::string_view column_text(sqlite3_stmt *statement, int column) {
    const void *data = sqlite3_column_blob(statement, column);
    const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement, column));
    return data == nullptr ? std::string_view()
                           : std::string_view(static_cast<const char *>(data), size);
}

// Paths and texts are any bytes, so they are kept as blobs. The memory must live until the
// statement was stepped.
void bind_bytes(sqlite3_stmt *statement, int index, const std::string &text) {
    sqlite3_bind_blob64(statement, index, text.data(), text.size(), nullptr);
}

} // namespace

void Database::Closer::operator()(sqlite3 *opened) const {
    sqlite3_close_v2(opened);
}
void Database::Closer::operator()(sqlite3_stmt *statement) const {
    sqlite3_finalize(statement);
}

Database::Database(const std::string &file, Tree &tree, bool &fresh) : name(file) {
    sqlite3 *opened = nullptr;
    const int result =
        sqlite3_open_v2(file.c_str(), &opened, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    connection.reset(opened);
    if (result != SQLITE_OK) {
        fail();
    }
    // One service owns the file for as long as it runs; a second one is refused here.
    execute("PRAGMA locking_mode = EXCLUSIVE");
    // Looked at before anything is changed: the file may be another program's.
    fresh = query_number("SELECT count(*) FROM sqlite_schema") == 0;
    if (!fresh) {
        check_ours();
    }
    use_wal();
    // Each commit is synced: what was acknowledged survives a power cut.
    execute("PRAGMA synchronous = FULL");
    if (fresh) {
        create_schema();
    }
    load(tree);
    replace_row =
        prepare("INSERT OR REPLACE INTO element (path, type, text, time) VALUES (?, ?, ?, ?)");
    delete_row = prepare("DELETE FROM element WHERE path = ?");
}

void Database::fail() const {
    const char *reason = connection ? sqlite3_errmsg(connection.get()) : "out of memory";
    throw DatabaseError("database '" + name + "': " + reason);
}

void Database::execute(const char *sql) {
    if (sqlite3_exec(connection.get(), sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
        fail();
    }
}

Database::Statement Database::prepare(const char *sql) {
    sqlite3_stmt *statement = nullptr;
    if (sqlite3_prepare_v2(connection.get(), sql, -1, &statement, nullptr) != SQLITE_OK) {
        fail();
    }
    return Statement(statement);
}

std::int64_t Database::query_number(const char *sql) {
    const Statement statement = prepare(sql);
    if (sqlite3_step(statement.get()) != SQLITE_ROW) {
        fail();
    }
    return sqlite3_column_int64(statement.get(), 0);
}

void Database::check_ours() {
    if (query_number("PRAGMA application_id") != application_id ||
        query_number("PRAGMA user_version") != schema_version) {
        throw DatabaseError("database '" + name + "' is not one of this service");
    }
    const Statement statement = prepare("PRAGMA quick_check(1)");
    if (sqlite3_step(statement.get()) != SQLITE_ROW) {
        fail();
    }
    const std::string_view verdict = column_text(statement.get(), 0);
    if (verdict != "ok") {
        throw DatabaseError("database '" + name + "' is damaged: " + std::string(verdict));
    }
}

void Database::use_wal() {
    const Statement statement = prepare("PRAGMA journal_mode = WAL");
    if (sqlite3_step(statement.get()) != SQLITE_ROW) {
        fail();
    }
    // A file system may not offer what WAL needs. The classic journal promises the same, slower.
    if (column_text(statement.get(), 0) != "wal") {
        log_line("database '%s': no write-ahead log on this file system", name.c_str());
    }
}

void Database::create_schema() {
    const std::string sql = "BEGIN IMMEDIATE;"
                            "PRAGMA application_id = " +
                            std::to_string(application_id) +
                            ";"
                            "PRAGMA user_version = " +
                            std::to_string(schema_version) +
                            ";"
                            "CREATE TABLE element (path BLOB PRIMARY KEY, type INTEGER NOT NULL,"
                            " text BLOB NOT NULL, time INTEGER NOT NULL) WITHOUT ROWID;"
                            "COMMIT";
    execute(sql.c_str());
}

// The rows come in bytewise order of their paths, so that parents precede their children. Each
// passes the same checks as a client's write: a row that does not is damage.
void Database::load(Tree &tree) {
    Edit edit(tree, no_time);
    const Statement statement = prepare("SELECT path, type, text, time FROM element ORDER BY path");
    int result = 0;
    while ((result = sqlite3_step(statement.get())) == SQLITE_ROW) {
        Item item;
        item.path = column_text(statement.get(), 0);
        item.value.type = static_cast<element_type_t>(sqlite3_column_int(statement.get(), 1));
        item.value.text = column_text(statement.get(), 2);
        item.value.time = sqlite3_column_int64(statement.get(), 3);
        item.kind = item.value.type == element_type_node ? ItemKind::make_node : ItemKind::set;
        const api_status_t status = edit.apply(item);
        if (status != api_status_ok) {
            throw DatabaseError("database '" + name + "' is damaged: element '" + item.path +
                                "' has status " + std::to_string(status));
        }
    }
    if (result != SQLITE_DONE) {
        fail();
    }
    edit.keep();
}

void Database::step(sqlite3_stmt *statement) {
    const int result = sqlite3_step(statement);
    sqlite3_reset(statement);
    sqlite3_clear_bindings(statement);
    if (result != SQLITE_DONE) {
        fail();
    }
}

void Database::write(const Change &change) {
    if (!change.after) {
        bind_bytes(delete_row.get(), 1, change.path);
        step(delete_row.get());
        return;
    }
    bind_bytes(replace_row.get(), 1, change.path);
    sqlite3_bind_int(replace_row.get(), 2, change.after->type);
    bind_bytes(replace_row.get(), 3, change.after->text);
    sqlite3_bind_int64(replace_row.get(), 4, change.after->time);
    step(replace_row.get());
}

bool Database::commit(const std::vector<Change> &changes) {
    try {
        execute("BEGIN IMMEDIATE");
        for (const Change &change : changes) {
            if (change.stored()) {
                write(change);
            }
        }
        execute("COMMIT");
        return true;
    } catch (const DatabaseError &error) {
        log_line("cannot store a change: %s", error.what());
        // Fails when SQLite has rolled back by itself.
        sqlite3_exec(connection.get(), "ROLLBACK", nullptr, nullptr, nullptr);
        return false;
    }
}

} // namespace tav
