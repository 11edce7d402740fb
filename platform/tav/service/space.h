// Space on the disk that is reserved so that a full disk can be emptied: removing takes room in the
// log first. File systems that cannot reserve space are not helped.
#pragma once

#include <cstdint>
#include <string>

namespace tav {

class Space {
public:
    // `database`: a descriptor for writing, which outlives this.
    explicit Space(int database) : fd(database) {}

    // The content of the log can always be brought into a database of this size. Throws DiskFull.
    void reserve_database(std::int64_t size);
    // What was reserved may have been given back.
    void forget_database() { reserved = 0; }
    // The log has room for a while, if the disk has.
    static void reserve_log(const std::string &log);

private:
    int fd;
    std::int64_t reserved = 0;
};

} // namespace tav
