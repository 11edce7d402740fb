#include "service/directory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "client/unique_fd.h"

namespace tav {

namespace {

[[noreturn]] void fail(const std::string &what) {
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

// Creates one directory; false if it exists.
bool make(const std::string &directory, mode_t mode) {
    if (::mkdir(directory.c_str(), mode) == 0) {
        // The process's umask may have removed permissions.
        if (::chmod(directory.c_str(), mode) != 0) {
            fail("cannot set the permissions of directory '" + directory + "'");
        }
        sync_directory(directory_of(directory));
        return true;
    }
    const int error = errno;
    struct stat existing {};
    if (::stat(directory.c_str(), &existing) == 0) {
        if (S_ISDIR(existing.st_mode)) {
            return false;
        }
        throw std::runtime_error("'" + directory + "' is not a directory");
    }
    errno = error;
    fail("cannot create directory '" + directory + "'");
}

} // namespace

std::string directory_of(const std::string &file) {
    const std::size_t slash = file.rfind('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : file.substr(0, slash);
}

void make_directory_of(const std::string &file, std::optional<gid_t> group) {
    constexpr mode_t outer = 0755;
    constexpr mode_t inner = 0750;
    for (std::size_t slash = file.find('/', 1); slash != std::string::npos;) {
        const std::size_t next = file.find('/', slash + 1);
        const std::string directory = file.substr(0, slash);
        const bool made = make(directory, next == std::string::npos ? inner : outer);
        if (made && next == std::string::npos && group &&
            ::chown(directory.c_str(), static_cast<uid_t>(-1), *group) != 0) {
            fail("cannot give directory '" + directory + "' to its group");
        }
        slash = next;
    }
}

void require_private(const std::string &directory) {
    struct stat info {};
    if (::stat(directory.c_str(), &info) != 0) {
        fail("cannot examine directory '" + directory + "'");
    }
    if (info.st_uid != 0 && info.st_uid != ::geteuid()) {
        throw std::runtime_error("directory '" + directory +
                                 "' belongs to another user, who could replace files in it: use a "
                                 "directory of the service's own user");
    }
    if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        throw std::runtime_error("others can create files in directory '" + directory +
                                 "': use a directory that only the service uses, or chmod go-w '" +
                                 directory + "'");
    }
}

void sync_directory(const std::string &directory) {
    const UniqueFd fd(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd.valid()) {
        fail("cannot open directory '" + directory + "'");
    }
    // Some file systems do not support this (EINVAL); then nothing can be done.
    if (::fsync(fd.get()) != 0 && errno != EINVAL) {
        fail("cannot sync directory '" + directory + "'");
    }
}

} // namespace tav
