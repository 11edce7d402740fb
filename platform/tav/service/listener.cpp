#include "service/listener.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "service/directory.h"

namespace tav {

namespace {

constexpr int backlog = 128;
constexpr const char *unfinished_suffix = ".new";

[[noreturn]] void fail(const std::string &what) {
    throw ListenError(what + ": " + std::strerror(errno));
}

sockaddr_un address_of(const std::string &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        throw ListenError("socket path '" + path + "' is too long");
    }
    std::memcpy(address.sun_path, path.data(), path.size());
    return address;
}

UniqueFd stream_socket() {
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd.valid()) {
        fail("socket");
    }
    return fd;
}

// Other users could replace the socket and the lock, or leave links under their names.
void refuse_shared(const std::string &directory) {
    struct stat info {};
    if (::stat(directory.c_str(), &info) != 0) {
        fail("cannot examine directory '" + directory + "'");
    }
    const bool own = info.st_uid == 0 || info.st_uid == ::geteuid();
    if (own && (info.st_mode & (S_IWGRP | S_IWOTH)) == 0) {
        return;
    }
    const bool keeps_others_out = own && (info.st_mode & S_ISVTX) != 0;
    throw ListenError(
        "other users can write to directory '" + directory + "': " +
        (keeps_others_out
             ? "use one inside it, which is created, such as '" + directory + "/tavd'"
             : "use another one, or let only root or this user own it and write to it"));
}

} // namespace

Listener::Listener(const std::string &wanted, std::optional<gid_t> group)
    : path(wanted), socket_group(group), lock_path(wanted + ".lock") {
    address_of(path + unfinished_suffix);
    try {
        make_directory_of(path, group);
        refuse_shared(directory_of(path));
    } catch (const std::runtime_error &error) {
        throw ListenError("socket '" + path + "': " + error.what());
    }
    take_lock();
    try {
        refuse_served();
    } catch (const ListenError &) {
        remove(lock_path, lock_file());
        throw;
    }
}

Listener::~Listener() {
    remove(path, socket_file);
    // Remove it while it is still locked, so that take_lock can detect the removal.
    remove(lock_path, lock_file());
}

Listener::FileId Listener::file_at(const std::string &name) {
    struct stat info {};
    return ::lstat(name.c_str(), &info) == 0 ? FileId{info.st_dev, info.st_ino} : FileId{};
}

Listener::FileId Listener::lock_file() const {
    struct stat info {};
    return ::fstat(lock.get(), &info) == 0 ? FileId{info.st_dev, info.st_ino} : FileId{};
}

// If this service's files were moved away, another one may serve under their names.
void Listener::remove(const std::string &name, const FileId &own) {
    if (file_at(name) == own) {
        ::unlink(name.c_str());
    }
}

void Listener::listen(mode_t mode) {
    const std::string unfinished = path + unfinished_suffix;
    listen_at(unfinished, mode);
    const FileId created = file_at(unfinished);
    // Renaming replaces the socket of a dead service with this one, which already accepts
    // connections.
    if (::rename(unfinished.c_str(), path.c_str()) != 0) {
        fail("cannot create '" + path + "'");
    }
    socket_file = created;
}

// The holder of the lock is the service: unlike a connection attempt, this also works while another
// service is starting. The lock ends with the process that holds it.
void Listener::take_lock() {
    for (;;) {
        lock = UniqueFd(::open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
        if (!lock.valid()) {
            fail("cannot open '" + lock_path + "'");
        }
        if (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
            if (errno == EWOULDBLOCK) {
                throw ListenError("another tavd is serving at '" + path + "'");
            }
            fail("cannot lock '" + lock_path + "'");
        }
        // The previous holder may have removed the file between our open and our lock.
        if (file_at(lock_path) == lock_file()) {
            return;
        }
    }
}

// Checks the existing file: another program may serve without our lock, and a file that is not a
// socket must not be replaced.
void Listener::refuse_served() const {
    struct stat existing {};
    if (::lstat(path.c_str(), &existing) != 0) {
        return;
    }
    if (!S_ISSOCK(existing.st_mode)) {
        throw ListenError("'" + path + "' exists and is not a socket");
    }
    const UniqueFd probe = stream_socket();
    const sockaddr_un address = address_of(path);
    const int result =
        ::connect(probe.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address);
    // A full backlog gives EAGAIN: that service is alive too.
    if (result == 0 || errno == EAGAIN) {
        throw ListenError("another service is serving at '" + path + "'");
    }
}

void Listener::listen_at(const std::string &name, mode_t mode) {
    const sockaddr_un address = address_of(name);
    ::unlink(name.c_str());
    socket = stream_socket();
    if (::bind(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        fail("cannot create '" + name + "'");
    }
    if (socket_group && ::chown(name.c_str(), static_cast<uid_t>(-1), *socket_group) != 0) {
        fail("cannot give '" + name + "' to its group");
    }
    if (::chmod(name.c_str(), mode) != 0 || ::listen(socket.get(), backlog) != 0) {
        fail("cannot listen at '" + name + "'");
    }
}

} // namespace tav
