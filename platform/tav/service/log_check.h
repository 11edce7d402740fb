// SQLite's write-ahead log, examined before SQLite opens it. At the first frame that is not valid,
// SQLite silently drops everything from there.
#pragma once

#include <cstdint>
#include <string>

namespace tav {

struct LogCheck {
    std::uint64_t commits = 0; // that SQLite will read
    // After the last of these: what was written and will be dropped. Remains of an earlier use of
    // the file do not count.
    std::uint64_t dropped_frames = 0;
    std::uint64_t dropped_bytes = 0;
    // There is damage that a commit follows which began later. If each commit was synced before the
    // next one began, no power cut can have caused that.
    bool damaged_before_a_commit = false;
    // SQLite will drop the whole log, although it has pages that are not in the database. The
    // header is synced before anything follows it, so no power cut can have caused that.
    bool header_damaged = false;
};

// `database` is a descriptor of the database file. A log that does not exist is empty. Throws
// std::runtime_error when a file cannot be read.
LogCheck check_log(const std::string &log, int database);

} // namespace tav
