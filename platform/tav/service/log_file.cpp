#include "service/log_file.h"

#include <sqlite3.h>

#include <cstring>
#include <new>

namespace tav {

namespace {

constexpr char vfs_name[] = "whole-frames";

// Of SQLite's file format.
constexpr int head_bytes = 24;
// Larger pages are written in two calls.
constexpr int page_bytes = 4096;

// The system's file follows it in the memory that SQLite allocates.
struct LogFile {
    sqlite3_file base; // the first, as SQLite requires
    sqlite3_int64 offset;
    bool has_header; // it has not been written yet
    char header[head_bytes];

    sqlite3_file *system() { return reinterpret_cast<sqlite3_file *>(this + 1); }
    int write(const void *data, int bytes, sqlite3_int64 at) {
        return system()->pMethods->xWrite(system(), data, bytes, at);
    }
};

// SQLite allocates it with the alignment of a 64-bit integer.
LogFile &log_of(sqlite3_file *file) {
    return *static_cast<LogFile *>(static_cast<void *>(file));
}

// Writes a header that no page has followed. SQLite writes the page at once, so there is none when
// it does anything else.
int write_header(LogFile &log) {
    if (!log.has_header) {
        return SQLITE_OK;
    }
    log.has_header = false;
    return log.write(log.header, head_bytes, log.offset);
}

int write(sqlite3_file *file, const void *data, int bytes, sqlite3_int64 at) {
    LogFile &log = log_of(file);
    if (log.has_header && at == log.offset + head_bytes && bytes <= page_bytes) {
        log.has_header = false;
        char frame[head_bytes + page_bytes];
        std::memcpy(frame, log.header, head_bytes);
        std::memcpy(frame + head_bytes, data, static_cast<std::size_t>(bytes));
        return log.write(frame, head_bytes + bytes, log.offset);
    }
    const int result = write_header(log);
    if (result != SQLITE_OK || bytes != head_bytes) {
        return result != SQLITE_OK ? result : log.write(data, bytes, at);
    }
    std::memcpy(log.header, data, head_bytes);
    log.offset = at;
    log.has_header = true;
    return SQLITE_OK;
}

// Calls the same method of the system's file.
template <auto method, class... Arguments>
int forward(sqlite3_file *file, Arguments... arguments) {
    LogFile &log = log_of(file);
    const int result = write_header(log);
    const int forwarded = (log.system()->pMethods->*method)(log.system(), arguments...);
    return result != SQLITE_OK ? result : forwarded;
}

// Version 1: without the methods for shared memory, which a log does not use.
const sqlite3_io_methods methods = {1,
                                    forward<&sqlite3_io_methods::xClose>,
                                    forward<&sqlite3_io_methods::xRead>,
                                    write,
                                    forward<&sqlite3_io_methods::xTruncate>,
                                    forward<&sqlite3_io_methods::xSync>,
                                    forward<&sqlite3_io_methods::xFileSize>,
                                    forward<&sqlite3_io_methods::xLock>,
                                    forward<&sqlite3_io_methods::xUnlock>,
                                    forward<&sqlite3_io_methods::xCheckReservedLock>,
                                    forward<&sqlite3_io_methods::xFileControl>,
                                    forward<&sqlite3_io_methods::xSectorSize>,
                                    forward<&sqlite3_io_methods::xDeviceCharacteristics>,
                                    nullptr,
                                    nullptr,
                                    nullptr,
                                    nullptr,
                                    nullptr,
                                    nullptr};

sqlite3_vfs *system_vfs = nullptr;

int open(sqlite3_vfs * /*vfs*/, const char *name, sqlite3_file *file, int flags, int *done) {
    if ((flags & SQLITE_OPEN_WAL) == 0) {
        return system_vfs->xOpen(system_vfs, name, file, flags, done);
    }
    LogFile &log = *new (file) LogFile();
    const int result = system_vfs->xOpen(system_vfs, name, log.system(), flags, done);
    // Without methods SQLite does not close the file; the system's has none after a failure either.
    log.base.pMethods = log.system()->pMethods != nullptr ? &methods : nullptr;
    return result;
}

bool add_vfs() {
    system_vfs = sqlite3_vfs_find(nullptr);
    if (system_vfs == nullptr) {
        return false;
    }
    static sqlite3_vfs vfs = *system_vfs;
    vfs.zName = vfs_name;
    vfs.pNext = nullptr;
    vfs.szOsFile += static_cast<int>(sizeof(LogFile));
    vfs.xOpen = open;
    return sqlite3_vfs_register(&vfs, 0) == SQLITE_OK;
}

} // namespace

const char *vfs_with_whole_frames() {
    static const bool there = add_vfs();
    return there ? vfs_name : nullptr;
}

} // namespace tav
