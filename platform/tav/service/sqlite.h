// One SQLite connection, with its errors as exceptions that name the file.
#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace tav {

class DatabaseError : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

class DamagedDatabase : public DatabaseError {
    using DatabaseError::DatabaseError;
};

class DiskFull : public DatabaseError {
    using DatabaseError::DatabaseError;
};

// Throws the error for a file with invalid content, including how to continue without it. `what`
// follows the name of the file.
[[noreturn]] void refuse_database(const std::string &file, const std::string &what);
// The same for damage, a DamagedDatabase, including how to keep what can be read.
[[noreturn]] void refuse_damaged(const std::string &file, const std::string &what);

// Every member throws DatabaseError; for a damaged file it is that of refuse_damaged.
class Sqlite {
public:
    struct Closer {
        void operator()(sqlite3 *connection) const;
        void operator()(sqlite3_stmt *statement) const;
    };
    using Statement = std::unique_ptr<sqlite3_stmt, Closer>;

    // `flags`: SQLITE_OPEN_...
    Sqlite(std::string file, int flags);

    void execute(const std::string &sql);
    Statement prepare(const char *sql);
    // The first column of the only row.
    std::int64_t number(const char *sql);
    std::int64_t number(sqlite3_stmt *statement);
    // Executes a statement without result rows, and resets it for the next use.
    void run(sqlite3_stmt *statement);
    // The next row; false at the end.
    bool next(sqlite3_stmt *statement);
    // Rolls back a transaction, if one is open. That fails if memory has ended; it is then still
    // open.
    void roll_back() noexcept;

    sqlite3 *get() const { return connection.get(); }
    const std::string &name() const { return file_name; }
    // Without symbolic links: the log has this name with "-wal" after it.
    std::string resolved_name() const;

private:
    [[noreturn]] void fail() const;

    std::string file_name;
    std::unique_ptr<sqlite3, Closer> connection;
};

// A column's bytes, valid until the statement's next step.
std::string_view column_text(sqlite3_stmt *statement, int column);
// Texts may contain any bytes, so they are stored as blobs. The memory must stay valid until the
// statement was stepped.
void bind_bytes(sqlite3_stmt *statement, int index, const std::string &text);

} // namespace tav
