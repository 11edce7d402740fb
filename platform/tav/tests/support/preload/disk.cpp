// Preloaded into the service, makes writing to files fail. The file named by the environment
// variable TAV_DISK_FAULT says what fails, and may change at any time: "write N" or "sync N" makes
// every such call fail with errno N; "kill N" ends the process at its Nth sync, and "once N" makes
// that one fail. Nothing fails while there is no such file.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include <sys/stat.h>
#include <unistd.h>

#include "support/preload/next_function.h"

namespace {

bool is_regular_file(int fd) {
    struct stat info {};
    return fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
}

// Sets errno and returns true if this kind of call must fail now.
bool fails(const char *kind) {
    const char *const plan = std::getenv("TAV_DISK_FAULT");
    std::FILE *const file = plan != nullptr ? std::fopen(plan, "re") : nullptr;
    if (file == nullptr) {
        return false;
    }
    char planned[16] = {};
    int error = 0; // or a count
    const int read = std::fscanf(file, "%15s %d", planned, &error);
    std::fclose(file);
    if (read == 2 && std::strcmp(kind, "sync") == 0) {
        static int syncs = 0;
        const bool reached = ++syncs == error;
        if (reached && std::strcmp(planned, "kill") == 0) {
            std::raise(SIGKILL);
        }
        if (reached && std::strcmp(planned, "once") == 0) {
            errno = EIO;
            return true;
        }
    }
    if (read != 2 || std::strcmp(planned, kind) != 0) {
        return false;
    }
    errno = error;
    return true;
}

} // namespace

extern "C" {

ssize_t pwrite(int fd, const void *data, size_t size, off_t offset) {
    static const auto next = next_function<ssize_t (*)(int, const void *, size_t, off_t)>("pwrite");
    return is_regular_file(fd) && fails("write") ? -1 : next(fd, data, size, offset);
}

ssize_t pwrite64(int fd, const void *data, size_t size, off64_t offset) {
    static const auto next =
        next_function<ssize_t (*)(int, const void *, size_t, off64_t)>("pwrite64");
    return is_regular_file(fd) && fails("write") ? -1 : next(fd, data, size, offset);
}

int fsync(int fd) {
    static const auto next = next_function<int (*)(int)>("fsync");
    return fails("sync") ? -1 : next(fd);
}

int fdatasync(int fd) {
    static const auto next = next_function<int (*)(int)>("fdatasync");
    return fails("sync") ? -1 : next(fd);
}
}
