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

} // namespace

Listener::Listener(const std::string &wanted, std::optional<gid_t> group)
    : path(wanted), socket_group(group), lock_path(wanted + ".lock") {
    address_of(path + unfinished_suffix);
    try {
        make_directory_of(path, group);
    } catch (const std::runtime_error &error) {
        throw ListenError("socket '" + path + "': " + error.what());
    }
    take_lock();
    try {
        refuse_served();
    } catch (const ListenError &) {
        ::unlink(lock_path.c_str());
        throw;
    }
}

Listener::~Listener() {
    if (listening) {
        ::unlink(path.c_str());
    }
    // Remove it while it is still locked, so that take_lock can detect the removal.
    ::unlink(lock_path.c_str());
}

void Listener::listen(mode_t mode) {
    const std::string unfinished = path + unfinished_suffix;
    listen_at(unfinished, mode);
    // Renaming replaces the socket of a dead service with this one, which already accepts
    // connections.
    if (::rename(unfinished.c_str(), path.c_str()) != 0) {
        fail("cannot create '" + path + "'");
    }
    listening = true;
}

// The holder of the lock is the service: unlike a connection attempt, this also works while another
// service is starting. The lock ends with the process that holds it.
void Listener::take_lock() {
    for (;;) {
        lock = UniqueFd(::open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
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
        struct stat held {};
        struct stat named {};
        if (::fstat(lock.get(), &held) == 0 && ::stat(lock_path.c_str(), &named) == 0 &&
            held.st_ino == named.st_ino && held.st_dev == named.st_dev) {
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
