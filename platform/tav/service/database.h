// The tree on disk: an SQLite database in WAL mode, one row per element.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "service/database_file.h"
#include "service/history_rows.h"
#include "service/known_file.h"
#include "service/rows.h"
#include "service/space.h"
#include "service/sqlite.h"
#include "service/storage.h"

namespace tav {

// What a successful commit guarantees. In both modes it survives the death of the service,
// transactions are stored in their order, and none is ever stored in part.
enum class Durability {
    full,  // each commit is synced: it also survives a crash of the machine and a power cut
    normal // synced from time to time: a power cut may lose the last commits
};

class Database : public Storage {
public:
    // Opens `file` and reads its content into `tree`, which contains only the root. A file that
    // does not exist is created with its directory; it then contains the `initial_nodes`. Throws
    // DatabaseError when the file cannot be used: not a database of this kind, damaged, or used by
    // another service. A file that cannot be used is not changed.
    Database(const std::string &file, Durability promised,
             const std::vector<std::string> &initial_nodes, Tree &tree);
    ~Database() override;

    // False if it failed, for example because the disk is full, or because a file of the database
    // is no longer in its place: the changes are not stored then,
    // and do not appear after a later start either.
    bool commit(const Edit::Changes &changes) override;
    bool is_slow(const Edit::Changes &changes) const override;
    std::uint64_t begin_history(const HistoryBounds &bounds, Records &records) override;
    std::vector<PendingPtr> take_pending() override { return std::move(stored_pending); }
    const char *promise() const override;

private:
    void use_wal();
    void begin_durability(const Version &before);
    bool files_are_there();
    bool empty_log();
    bool log_is_long() const;
    void shorten_log();
    enum class Depth { whole, least }; // of the history
    void transact(const Edit::Changes &changes, Depth depth);
    void transact_somehow(const Edit::Changes &changes);
    void make_room();
    void trim_history(bool keeps_history);
    bool try_commit(const Edit::Changes &changes);
    Version current_version() const;
    void write(const Edit::Changes &changes, Depth depth, Totals &after);
    void discard_refused();

    Durability durability;
    UniqueFd lock; // closed after the database is
    Space space;
    Sqlite database;
    std::int64_t page_size = 0;
    Sqlite::Statement begin;
    Sqlite::Statement end;
    Sqlite::Statement page_count;
    std::vector<KnownFile> files; // the database, and the log if there is one
    std::optional<Rows> rows;
    std::optional<HistoryRows> history;
    Records stored_records;                 // until begin_history()
    std::vector<PendingPtr> stored_pending; // until take_pending()
    Totals totals;
    bool refused_in_log = false; // the log on disk may end with a commit that failed
    int log_pages = 0;           // after the last commit
};

} // namespace tav
