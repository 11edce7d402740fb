// How many calls SQLite's log is written with.
#include <gtest/gtest.h>

#include <sqlite3.h>

#include <filesystem>
#include <fstream>

#include "service/log_file.h"
#include "service/sqlite.h"
#include "support/process.h"

using namespace tav;

namespace {

// Calls of this process that have written to files; -1 if the kernel does not count them.
long writing_calls() {
    std::ifstream counts("/proc/self/io");
    for (std::string name; counts >> name;) {
        long number = 0;
        counts >> number;
        if (name == "syscw:") {
            return number;
        }
    }
    return -1;
}

struct Log {
    explicit Log(const std::string &file)
        : database(file, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE), name(file + "-wal") {}
    // Pages in the log.
    long frames(long page) const {
        const auto bytes = static_cast<long>(std::filesystem::file_size(name));
        return (bytes - 32) / (page + 24);
    }
    Sqlite database;
    std::string name;
};

constexpr char many_rows[] = "INSERT INTO t WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1"
                             " FROM n WHERE i < 200) SELECT i, randomblob(200) FROM n";

// The calls for each frame of one transaction, in a database of this page size.
double calls_per_frame(const std::string &file, long page) {
    Log log(file);
    log.database.execute("PRAGMA page_size = " + std::to_string(page));
    log.database.execute("PRAGMA locking_mode = EXCLUSIVE");
    log.database.execute("PRAGMA journal_mode = WAL");
    log.database.execute("PRAGMA synchronous = NORMAL");
    log.database.execute("CREATE TABLE t (i INTEGER PRIMARY KEY, data BLOB)");
    const long frames = log.frames(page);
    const long calls = writing_calls();
    log.database.execute(many_rows);
    const long written = writing_calls() - calls;
    EXPECT_GT(log.frames(page), frames);
    return static_cast<double>(written) / static_cast<double>(log.frames(page) - frames);
}

} // namespace

TEST(LogFileTest, EachPageOfTheLogIsWrittenWithItsHeaderInOneCall) {
    if (writing_calls() < 0) {
        GTEST_SKIP() << "skipped: this kernel does not count calls";
    }
    const tavtest::TempDir dir;
    EXPECT_EQ(calls_per_frame(dir.file("small.db"), 1024), 1.0);
    EXPECT_EQ(calls_per_frame(dir.file("usual.db"), 4096), 1.0);
    EXPECT_EQ(calls_per_frame(dir.file("large.db"), 8192), 2.0); // as SQLite does it
}

// SQLite checks the checksum of each frame when it reads the log.
TEST(LogFileTest, TheLogIsWhatSqliteItselfReads) {
    const tavtest::TempDir dir;
    for (const char *page : {"512", "1024", "4096", "8192"}) {
        const std::string file = dir.file(std::string("of_") + page + ".db");
        Log log(file);
        log.database.execute(std::string("PRAGMA page_size = ") + page);
        log.database.execute("PRAGMA journal_mode = WAL");
        log.database.execute("CREATE TABLE t (i INTEGER PRIMARY KEY, data BLOB)");
        log.database.execute(many_rows);
        sqlite3 *other = nullptr;
        ASSERT_EQ(sqlite3_open_v2(file.c_str(), &other, SQLITE_OPEN_READWRITE, "unix"), SQLITE_OK);
        const auto check = [&other, page](const char *sql, const std::string &expected) {
            sqlite3_stmt *statement = nullptr;
            ASSERT_EQ(sqlite3_prepare_v2(other, sql, -1, &statement, nullptr), SQLITE_OK);
            ASSERT_EQ(sqlite3_step(statement), SQLITE_ROW);
            EXPECT_EQ(column_text(statement, 0), expected) << page;
            sqlite3_finalize(statement);
        };
        check("SELECT count(*) FROM t", "200");
        check("PRAGMA integrity_check", "ok");
        sqlite3_close(other);
    }
}
