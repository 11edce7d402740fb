#include "service/database.h"

#include <sqlite3.h>

#include <algorithm>
#include <utility>

#include "service/log.h"

namespace tav {

namespace {

// Creates the file if it does not exist, and locks it.
UniqueFd provided(const std::string &file, const std::vector<std::string> &initial_nodes) {
    provide_database(file, initial_nodes);
    return lock_database(file);
}

} // namespace

Database::Database(const std::string &file, Durability promised,
                   const std::vector<std::string> &initial_nodes, Tree &tree)
    : durability(promised), lock(provided(file, initial_nodes)), space(lock.get()),
      database(file, SQLITE_OPEN_READWRITE) {
    // Until the file is known to be usable, not even closing may write to it.
    sqlite3_db_config(database.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    check_log_of(database.resolved_name(), lock.get());
    // Other programs than this service fail while it runs, or it fails here.
    database.execute("PRAGMA locking_mode = EXCLUSIVE");
    // Overwriting what is removed would need room in the log.
    database.execute("PRAGMA secure_delete = FAST");
    Version version = check_database(database);
    totals = load_database(database, version, tree, stored_records, stored_pending);
    page_size = database.number("PRAGMA page_size");
    use_wal();
    database.execute("PRAGMA synchronous = FULL");
    begin = database.prepare("BEGIN IMMEDIATE");
    end = database.prepare("COMMIT");
    page_count = database.prepare("PRAGMA page_count");
    migrate_database(database, version, totals, tree);
    // Without remains of earlier writes, what follows damage is a later write.
    static_cast<void>(empty_log());
    begin_durability(version);
    rows.emplace(database);
    history.emplace(database);
    for (const char *suffix : {"", "-wal"}) {
        if (KnownFile file_now(database.resolved_name() + suffix); file_now.loss() == nullptr) {
            files.push_back(std::move(file_now));
        }
    }
    sqlite3_db_config(database.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 0, nullptr);
    // Instead of SQLite's own checkpoints, which would be part of whichever commit comes next.
    const auto note_pages = [](void *pages, sqlite3 *, const char *, int number) {
        *static_cast<int *>(pages) = number;
        return SQLITE_OK;
    };
    sqlite3_wal_hook(database.get(), note_pages, &log_pages);
}

// Closing empties and removes the log, which must be its own.
Database::~Database() {
    static_cast<void>(files_are_there());
}

void Database::begin_durability(const Version &before) {
    if (before.unsynced != current_version().unsynced) {
        write_version(database, current_version(), totals);
        // The header on disk must describe the log from its first commit on.
        if (!empty_log()) {
            throw DatabaseError("database '" + database.name() + "': cannot change its durability");
        }
    }
    if (durability == Durability::normal) {
        database.execute("PRAGMA synchronous = NORMAL");
    }
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

// What is written to a file that was removed is lost with the service. Its content is still in
// memory then, and nothing on disk may be changed any more.
bool Database::files_are_there() {
    for (KnownFile &file : files) {
        if (const char *loss = file.loss()) {
            sqlite3_db_config(database.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
            log_line("'%s' %s while in use: changes cannot be stored. Put it back; or save the "
                     "settings (tav dump), stop tavd, and start it with a new database",
                     file.name().c_str(), loss);
            return false;
        }
    }
    sqlite3_db_config(database.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 0, nullptr);
    return true;
}

// Brings the content of the log into the database and makes it a file of no bytes; false if that
// fails, for example because the disk is full.
bool Database::empty_log() {
    try {
        database.execute("PRAGMA wal_checkpoint(TRUNCATE)");
        space.reserve_log(database.resolved_name() + "-wal");
        log_pages = 0;
        return true;
    } catch (const DatabaseError &) {
        return false;
    }
}

bool Database::log_is_long() const {
    constexpr int most = 1000;
    return log_pages >= most;
}

// Brings its content into the database, so that the next commit uses it again from its start. If
// that fails, it only grows.
void Database::shorten_log() {
    if (sqlite3_wal_checkpoint_v2(database.get(), nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr,
                                  nullptr) == SQLITE_OK) {
        log_pages = 0;
    }
}

Version Database::current_version() const {
    Version version;
    version.unsynced = durability == Durability::normal;
    return version;
}

void Database::write(const Edit::Changes &changes, Depth depth, Totals &after) {
    std::int64_t removed = 0;
    bool numbered = false;
    for (const Change &change : changes) {
        removed += change.stored() && !change.after ? 1 : 0;
    }
    const bool all = removed == after.rows && removed == static_cast<std::int64_t>(changes.size());
    if (all) {
        rows->remove_all();
    }
    for (const Change &change : changes) {
        if (!change.stored()) {
            continue;
        }
        if (change.before) {
            Rows::discount(change.path, *change.before, after);
        }
        if (change.after && is_pending_path(change.path)) {
            const auto number = static_cast<std::int64_t>(pending_number(change.path));
            after.last_record = std::max(after.last_record, number);
            numbered = true;
        }
        if (change.after) {
            rows->put(change.path, *change.after, after);
        } else if (!all) {
            rows->remove(change.path);
        }
    }
    if (depth == Depth::whole) {
        history->write(changes, after);
    } else {
        history->write_least(changes, after);
    }
    if (durability == Durability::full || numbered) {
        rows->store(after);
    }
}

std::uint64_t Database::begin_history(const HistoryBounds &bounds, Records &records) {
    history->bound(bounds, stored_records);
    records = std::move(stored_records);
    try {
        trim_history(bounds.transactions > 0);
    } catch (const DatabaseError &error) {
        // The next commits do it.
        log_line("cannot shorten the history: %s", error.what());
        database.roll_back();
    }
    return static_cast<std::uint64_t>(totals.last_record);
}

void Database::trim_history(bool keeps_history) {
    Totals after = totals;
    database.run(begin.get());
    if (history->trim(after)) {
        // Without a history, a number that nobody ever uses marks the changes that it lacks.
        after.last_record += keeps_history ? 0 : 1;
        rows->store(after);
    }
    database.run(end.get());
    history->kept();
    totals = after;
}

// A commit can fail after all of it was written, if the log could not be synced. SQLite discards
// it, but the log still has it completely, and the next start would treat it as done. Another
// commit overwrites it and breaks the chain of checksums after itself.
void Database::discard_refused() {
    if (!refused_in_log) {
        return;
    }
    // Nothing of it remains in a log that is empty; one that cannot be emptied is still correct.
    static_cast<void>(empty_log());
    write_version(database, current_version(), totals);
    refused_in_log = false;
}

// A sync, or more than a millisecond of work.
bool Database::is_slow(const Edit::Changes &changes) const {
    constexpr std::size_t most_changes = 64;
    constexpr std::size_t most_bytes = std::size_t{256} << 10; // the history has the old ones, too
    if (durability == Durability::full || changes.size() > most_changes || log_is_long()) {
        return true;
    }
    std::size_t bytes = 0;
    for (const Change &change : changes) {
        for (const Change::ValuePtr &value : {change.before, change.after}) {
            bytes += value ? value->text.size() : 0;
        }
    }
    return bytes > most_bytes;
}

bool Database::commit(const Edit::Changes &changes) {
    if (!files_are_there()) {
        return false;
    }
    if (log_is_long()) {
        shorten_log();
    }
    const bool stored = try_commit(changes);
    // The log is the last one; of the database, the size before a commit is enough.
    files.back().accept_size();
    return stored;
}

void Database::transact(const Edit::Changes &changes, Depth depth) {
    Totals after = totals;
    database.run(begin.get());
    write(changes, depth, after);
    space.reserve_database(database.number(page_count.get()) * page_size);
    database.run(end.get());
    totals = after;
    history->kept();
}

// There is always room to empty the log.
void Database::make_room() {
    database.roll_back();
    space.forget_database();
    static_cast<void>(empty_log());
}

// A change does not fail because there is no room for its history.
void Database::transact_somehow(const Edit::Changes &changes) {
    for (int tries = 0; tries < 2; ++tries) {
        try {
            transact(changes, Depth::whole);
            return;
        } catch (const DiskFull &) {
            make_room();
        }
    }
    transact(changes, Depth::least);
}

bool Database::try_commit(const Edit::Changes &changes) {
    try {
        // It may not have been possible when the last commit failed.
        database.roll_back();
        // Until that commit succeeds, no write can be confirmed.
        discard_refused();
        transact_somehow(changes);
        return true;
    } catch (const std::exception &error) {
        log_line("cannot store a change: %s", error.what());
    }
    database.roll_back();
    space.forget_database();
    refused_in_log = true;
    try {
        discard_refused();
    } catch (const std::exception &) {
        database.roll_back(); // the next commit tries again
    }
    return false;
}

} // namespace tav
