#include "service/repair.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>

#include "service/database_file.h"
#include "service/directory.h"
#include "service/log_check.h"

namespace tav {

namespace {

constexpr char kept_name[] = ".damaged";

[[noreturn]] void fail(const std::string &file, const std::string &what) {
    throw DatabaseError("database '" + file + "' " + what + ": " + std::strerror(errno));
}

std::string counted(std::uint64_t number, const std::string &what) {
    return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
}

bool exists(const std::string &file) {
    struct stat info {};
    return ::lstat(file.c_str(), &info) == 0;
}

void refuse_existing(const std::string &kept) {
    if (exists(kept)) {
        throw DatabaseError("there is already '" + kept +
                            "', of an earlier repair: move it away first");
    }
}

// What can be read of a damaged table.
class Salvage {
public:
    Salvage(Sqlite &damaged, Tree &result)
        : database(damaged), tree(result), version(number("PRAGMA user_version").value_or(0)) {}

    void read() {
        const std::string rows = std::string("SELECT path, type, text, time") +
                                 (checked() ? ", checksum" : "") + " FROM element ORDER BY path";
        // Each end of the table, up to the first page that cannot be read.
        pass(rows, false);
        pass(rows + " DESC", true);
        if (has_history()) {
            history = HistoryRows::salvage(database, bad_rows);
        }
    }
    const Records &records() const { return history; }
    const std::vector<PendingPtr> &pending() const { return changes; }
    std::int64_t rejected() const { return bad_rows; }
    // How many rows there were, if that was counted.
    std::optional<std::int64_t> expected() { return counted_rows("SELECT rows FROM total"); }
    std::optional<std::int64_t> expected_records() {
        return has_history() ? counted_rows("SELECT records FROM total") : std::nullopt;
    }

private:
    std::int64_t format() const { return version & 0xff; }
    bool has_history() const { return format() > second_format; }
    std::optional<std::int64_t> counted_rows(const char *sql) {
        return version == format() && checked() ? number(sql) : std::nullopt;
    }
    bool checked() const { return version != first_format; }
    std::optional<std::int64_t> number(const char *sql) {
        try {
            return database.number(sql);
        } catch (const DatabaseError &) {
            return std::nullopt;
        }
    }
    void pass(const std::string &sql, bool backwards) {
        try {
            const Sqlite::Statement statement = database.prepare(sql.c_str());
            while (database.next(statement.get())) {
                const StoredRow row = stored_row(statement.get(), checked());
                if (backwards && row.path <= last) {
                    return;
                }
                bad_rows += keep(row) ? 0 : 1;
                last = backwards ? last : row.path;
            }
        } catch (const DatabaseError &) {
            return; // the rest cannot be read
        }
    }
    bool keep(const StoredRow &row) {
        if (row.intact && is_pending_path(row.path)) {
            PendingPtr change = read_pending(row.path, row.value);
            const bool valid = change != nullptr;
            if (valid) {
                changes.push_back(std::move(change));
            }
            return valid;
        }
        if (!row.intact || check_path(row.path) != api_status_ok) {
            return false;
        }
        const Element *there = tree.find(row.path);
        if (there != nullptr) {
            return there->is_node() && row.value.type == element_type_node;
        }
        // The rows of nodes may be lost, and have no content of their own.
        add_nodes(tree, std::string(parent_path(row.path)));
        return tree.load(row.path, row.value) == api_status_ok;
    }

    Sqlite &database;
    Tree &tree;
    std::int64_t version;
    std::string last; // path that was read forwards
    std::int64_t bad_rows = 0;
    Records history;
    std::vector<PendingPtr> changes; // that wait for their confirmation
};

std::string of_expected(std::int64_t kept, std::optional<std::int64_t> expected) {
    return std::to_string(kept) +
           (expected && *expected >= kept ? " of " + std::to_string(*expected) : "");
}

// The user that runs the service can use the new file like the old one.
void take_owner(const std::string &from, const std::string &to) {
    struct stat info {};
    if (::stat(from.c_str(), &info) != 0 || ::chmod(to.c_str(), info.st_mode & 07777U) != 0 ||
        ::chown(to.c_str(), info.st_uid, info.st_gid) != 0) {
        fail(from, "cannot be repaired: '" + to + "' cannot be given to its owner");
    }
}

// The log goes first, because SQLite would apply it to the new file.
void replace(const std::string &file, const std::string &fresh) {
    const std::string kept = file + kept_name;
    if (::link(file.c_str(), kept.c_str()) != 0 ||
        (::rename((file + "-wal").c_str(), (kept + "-wal").c_str()) != 0 && errno != ENOENT) ||
        ::rename(fresh.c_str(), file.c_str()) != 0) {
        fail(file, "cannot be replaced");
    }
    sync_directory(directory_of(file));
}

// A repair that was interrupted in replace() is undone.
void undo_interrupted(const std::string &file) {
    const std::string kept = file + kept_name;
    std::error_code ignored;
    if (!std::filesystem::equivalent(file, kept, ignored)) {
        return;
    }
    if (!exists(file + "-wal")) {
        ::rename((kept + "-wal").c_str(), (file + "-wal").c_str());
    }
    ::unlink(kept.c_str());
}

std::string rewrite(const std::string &file, Sqlite &damaged) {
    refuse_existing(file + kept_name);
    refuse_existing(file + kept_name + "-wal");
    Tree tree;
    Salvage salvage(damaged, tree);
    salvage.read();
    const auto kept = static_cast<std::int64_t>(tree.extent().elements()) - 1;
    if (kept == 0) {
        refuse_database(file, "is damaged, and none of it can be read");
    }
    const std::string fresh = file + ".new";
    create_database(fresh, tree, salvage.records(), salvage.pending());
    take_owner(file, fresh);
    const auto waiting = static_cast<std::int64_t>(salvage.pending().size());
    std::optional<std::int64_t> expected = salvage.expected();
    if (expected) {
        *expected -= waiting; // they are rows, too
    }
    const std::string changes =
        waiting > 0 ? ", " + counted(salvage.pending().size(), "unconfirmed change") : "";
    const std::string report = "'" + file + "': kept " + of_expected(kept, expected) + " elements" +
                               changes + " and " +
                               of_expected(static_cast<std::int64_t>(salvage.records().size()),
                                           salvage.expected_records()) +
                               " entries of the history, dropped ";
    replace(file, fresh);
    return report + counted(static_cast<std::uint64_t>(salvage.rejected()), "damaged row") +
           " and what cannot be read. The damaged database is '" + file + kept_name + "'.\n";
}

// SQLite reads the log up to the damage; then its content goes to the database.
std::string drop_end_of_log(const std::string &file, Sqlite &database, const LogCheck &found) {
    const std::string log = file + "-wal";
    const std::string kept = log + kept_name;
    refuse_existing(kept);
    std::error_code error;
    std::filesystem::copy_file(log, kept, error);
    const UniqueFd copy(::open(kept.c_str(), O_RDONLY | O_CLOEXEC));
    if (error || !copy.valid() || ::fsync(copy.get()) != 0) {
        throw DatabaseError("database '" + file + "': cannot copy its log to '" + kept + "'");
    }
    database.execute("PRAGMA synchronous = FULL; PRAGMA wal_checkpoint(TRUNCATE)");
    return "'" + file + "': kept " + counted(found.commits, "write") +
           " of its log, dropped those from the damage on" +
           (found.header_damaged ? "" : " (" + std::to_string(found.dropped_bytes) + " bytes)") +
           ". The damaged log is '" + kept + "'.\n";
}

} // namespace

std::string repair_database(const std::string &file) {
    const UniqueFd lock = lock_database(file);
    Sqlite database(file, SQLITE_OPEN_READWRITE);
    const std::string name = database.resolved_name();
    undo_interrupted(name);
    const LogCheck found = check_log(name + "-wal", lock.get());
    sqlite3_db_config(database.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    try {
        database.execute("PRAGMA locking_mode = EXCLUSIVE");
        const Version version = check_database(database);
        Tree tree;
        Records records;
        std::vector<PendingPtr> pending;
        load_database(database, version, tree, records, pending);
    } catch (const DamagedDatabase &) {
        return rewrite(name, database);
    }
    if (found.dropped_bytes == 0 && !found.header_damaged) {
        return "'" + file + "' is not damaged, and was not changed.\n";
    }
    return drop_end_of_log(name, database, found);
}

} // namespace tav
