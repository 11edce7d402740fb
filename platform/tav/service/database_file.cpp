#include "service/database_file.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "client/unique_fd.h"
#include "protocol/messages.h"
#include "service/directory.h"
#include "service/log.h"
#include "service/log_check.h"
#include "service/path.h"

namespace tav {

namespace {

// "tavd" in the file's header, so that another program's database is not mistaken for ours.
constexpr std::int64_t application_id = 0x74617664;
constexpr std::int64_t unsynced_flag = 0x10000; // added to the format
// "Database File Format" of SQLite's documentation, section 1.3: four bytes, the highest first.
constexpr off_t header_user_version = 60;

bool exists(const std::string &file) {
    struct stat info {};
    return ::lstat(file.c_str(), &info) == 0;
}

// Without symbolic links, if it exists.
std::string resolved(const std::string &file) {
    std::error_code missing;
    const std::filesystem::path path = std::filesystem::canonical(file, missing);
    return missing ? file : path.string();
}

[[noreturn]] void fail(const std::string &file, const std::string &what) {
    throw DatabaseError("database '" + file + "' " + what + ": " + std::strerror(errno));
}

// The header of the file says so before SQLite has read the log: when it changes, the log is empty.
// Without syncs a power cut may keep any part of the log; and nothing is known of the services that
// wrote the first format.
bool each_commit_was_synced(int locked) {
    unsigned char number[4] = {};
    if (::pread(locked, number, sizeof number, header_user_version) != sizeof number) {
        return false;
    }
    return (number[1] & 1) == 0 && number[3] != first_format;
}

// SQLite would apply the log of a lost database to a new one.
void refuse_orphan(const std::string &file, const std::string &log) {
    if (exists(log)) {
        throw DatabaseError("database '" + file + "' is missing, but there is '" + log +
                            "', which holds the last changes made to it: put the database back,"
                            " or move that file away as well");
    }
}

// Removes the files of an earlier start that was interrupted.
void remove_unfinished(const std::string &unfinished) {
    for (const char *suffix : {"", "-journal", "-wal"}) {
        ::unlink((unfinished + suffix).c_str());
    }
}

std::string statement_of(const Version &version) {
    return "PRAGMA user_version = " + std::to_string(version.number()) + ";";
}

} // namespace

void add_nodes(Tree &tree, const std::string &path) {
    for (std::size_t slash = 0; slash != std::string::npos && path != "/";) {
        slash = path.find('/', slash + 1);
        const std::string node = path.substr(0, slash);
        if (tree.find(node) == nullptr) {
            tree.load(node, Value{element_type_node, {}, no_time});
        }
    }
}

// In WAL mode from the start, so that the first process to open it has it exclusively. After
// closing there is only one file to rename.
void create_database(const std::string &file, const Tree &tree, const Records &records,
                     const std::vector<PendingPtr> &pending) {
    remove_unfinished(file);
    Sqlite database(file, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    // Most commits change one leaf, and so write one page and compute its checksum.
    database.execute("PRAGMA page_size = 1024;"
                     "PRAGMA locking_mode = EXCLUSIVE; PRAGMA synchronous = FULL;"
                     "PRAGMA journal_mode = WAL");
    database.execute("BEGIN IMMEDIATE; PRAGMA application_id = " + std::to_string(application_id) +
                     ";" + statement_of({}));
    Rows::create(database);
    HistoryRows::create(database);
    Rows rows(database);
    Totals totals = rows.put_all(tree, pending);
    HistoryRows(database).put_all(records, totals);
    rows.store(totals);
    // Closing would do the latter, too, but would not say if it fails.
    database.execute("COMMIT; PRAGMA wal_checkpoint(TRUNCATE)");
}

RowChecks row_checks(const Version &version) {
    const bool first = version.format == first_format;
    return {!first, !first && !version.unsynced};
}

Totals load_database(Sqlite &database, const Version &version, Tree &tree, Records &records,
                     std::vector<PendingPtr> &pending) {
    Totals totals = load_rows(database, row_checks(version), tree, pending);
    if (version.format != first_format && version.format != second_format) {
        records = HistoryRows::load(database, row_checks(version), totals);
    }
    return totals;
}

void migrate_database(Sqlite &database, Version &version, Totals &totals, const Tree &tree) {
    const std::int64_t format = version.format;
    if (format == Version().format) {
        return;
    }
    version.format = Version().format;
    version.unsynced = version.unsynced && format != first_format;
    database.execute("BEGIN IMMEDIATE;" + statement_of(version));
    if (format == first_format) {
        database.execute("DROP TABLE element");
        Rows::create(database);
        totals = Rows(database).put_all(tree);
    } else if (format == second_format) {
        database.execute("DROP TABLE total");
        Rows::create_totals(database);
        Rows(database).store(totals);
    }
    if (format == first_format || format == second_format) {
        HistoryRows::create(database);
    }
    database.execute("COMMIT");
}

void write_version(Sqlite &database, const Version &version, const Totals &totals) {
    database.execute("BEGIN IMMEDIATE;" + statement_of(version));
    Rows(database).store(totals);
    database.execute("COMMIT");
}

std::int64_t Version::number() const {
    return format + (unsynced ? unsynced_flag : 0);
}

void provide_database(const std::string &file, const std::vector<std::string> &initial_nodes) {
    try {
        make_directory_of(file);
        require_private(directory_of(resolved(file)));
    } catch (const std::runtime_error &error) {
        throw DatabaseError("database '" + file + "': " + error.what());
    }
    // Two services may start at once: the second one finds the file.
    const std::string directory = directory_of(file);
    const UniqueFd lock(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!lock.valid() || ::flock(lock.get(), LOCK_EX) != 0) {
        fail(file, "cannot be opened: cannot lock directory '" + directory + "'");
    }
    struct stat info {};
    if (::stat(file.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) {
        throw DatabaseError("database '" + file + "' is not a regular file");
    }
    if (exists(file)) {
        return;
    }
    for (const char *suffix : {"-wal", "-journal"}) {
        refuse_orphan(file, file + suffix);
    }
    const std::string unfinished = file + ".new";
    Tree tree;
    for (const std::string &path : initial_nodes) {
        add_nodes(tree, path);
    }
    create_database(unfinished, tree);
    if (::rename(unfinished.c_str(), file.c_str()) != 0) {
        fail(file, "cannot be created");
    }
    sync_directory(directory);
}

UniqueFd lock_database(const std::string &file) {
    UniqueFd fd(::open(file.c_str(), O_RDWR | O_CLOEXEC));
    if (!fd.valid()) {
        fail(file, "cannot be opened");
    }
    if (::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno == EWOULDBLOCK) {
            throw DatabaseError("database '" + file + "' is in use by another process");
        }
        fail(file, "cannot be locked");
    }
    return fd;
}

void check_log_of(const std::string &file, int locked) {
    const std::string log = file + "-wal";
    LogCheck found;
    try {
        found = check_log(log, locked);
    } catch (const std::runtime_error &error) {
        throw DatabaseError("database '" + file + "': its log '" + log + "' " + error.what());
    }
    if (found.header_damaged || (found.damaged_before_a_commit && each_commit_was_synced(locked))) {
        refuse_damaged(file, "is damaged: its log '" + log + "' has " +
                                 (found.header_damaged
                                      ? "no valid header, so that nothing in it can be read"
                                      : "changes after the damage, which cannot be read: " +
                                            std::to_string(found.dropped_bytes) + " bytes"));
    }
    if (found.dropped_bytes > 0) {
        log_line("database '%s': dropped the end of its log, %" PRIu64 " bytes (%" PRIu64
                 " pages) of writes that are not complete. This is normal after a power cut.",
                 file.c_str(), found.dropped_bytes, found.dropped_frames);
    }
}

Version check_database(Sqlite &database) {
    if (sqlite3_db_readonly(database.get(), "main") != 0) {
        throw DatabaseError("database '" + database.name() +
                            "' cannot be written: the file or its"
                            " file system is read-only");
    }
    if (database.number("PRAGMA page_count") == 0) {
        refuse_database(database.name(), "is empty, which no database of this service ever is");
    }
    if (database.number("PRAGMA application_id") != application_id) {
        refuse_database(database.name(), "belongs to another program");
    }
    Version version;
    const std::int64_t current = version.format;
    const std::int64_t number = database.number("PRAGMA user_version");
    version.format = number & ~unsynced_flag;
    version.unsynced = version.format != number;
    if (version.format < first_format || version.format > current) {
        refuse_database(database.name(),
                        (version.format > current ? "was written by a newer tavd (format "
                                                  : "has an unknown format (") +
                            std::to_string(version.format) + ", this tavd reads " +
                            std::to_string(current) + ")");
    }
    const Sqlite::Statement check = database.prepare("PRAGMA quick_check(1)");
    if (!database.next(check.get()) || column_text(check.get(), 0) != "ok") {
        refuse_damaged(database.name(), "is damaged: " + std::string(column_text(check.get(), 0)));
    }
    return version;
}

} // namespace tav
