#include "service/space.h"

#include <fcntl.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>

#include "client/unique_fd.h"
#include "service/sqlite.h"

namespace tav {

namespace {

// SQLite uses the log again from its start when it has about this size.
constexpr off_t log_size = off_t{1} << 20;
// A removal writes up to eight pages of four KiB; twice as many fit on a disk of half a megabyte.
constexpr off_t part_of_disk = 8;

bool reserve(int fd, off_t size) {
    int result = 0;
    do {
        result = ::fallocate(fd, FALLOC_FL_KEEP_SIZE, 0, size);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

} // namespace

void Space::reserve_database(std::int64_t size) {
    if (size == reserved) {
        return;
    }
    if (!reserve(fd, size) && (errno == ENOSPC || errno == EDQUOT || errno == EFBIG)) {
        throw DiskFull("the disk is full");
    }
    reserved = size;
}

void Space::reserve_log(const std::string &log) {
    const UniqueFd fd(::open(log.c_str(), O_WRONLY | O_CLOEXEC));
    struct statvfs disk {};
    if (fd.valid() && ::fstatvfs(fd.get(), &disk) == 0) {
        const auto size = static_cast<off_t>(disk.f_blocks) * static_cast<off_t>(disk.f_frsize);
        // Refused: removing will fail while the disk is full.
        static_cast<void>(reserve(fd.get(), std::min(log_size, size / part_of_disk)));
    }
}

} // namespace tav
