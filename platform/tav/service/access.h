// Who may use the store: decided by what the kernel reports about the process at the other end.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "protocol/limits.h"

namespace tav {

// A process as it was when it connected.
struct Credentials {
    pid_t pid = 0;
    uid_t uid = 0;
    gid_t gid = 0;
    std::vector<gid_t> groups; // the supplementary ones
};

// Those of the process at the other end of a Unix stream socket. Throws std::runtime_error.
Credentials credentials_of(int fd);

enum class Access { none, read, write };

// How many connections there may be.
struct ConnectionLimits {
    std::size_t all = limits::connections;
    std::size_t kept = limits::connections_kept; // of all, for root and the service's user
    std::size_t per_user = limits::connections_per_user;
};

// The limits for a process that may have this many descriptors (RLIMIT_NOFILE). Throws
// std::runtime_error when these are too few to serve anyone.
ConnectionLimits connection_limits(std::size_t descriptors);

// Root and the user that the service runs as may do everything; other users may do what one of
// their groups may do.
struct Rights {
    uid_t owner = 0;
    std::optional<gid_t> write_group;
    std::optional<gid_t> read_group;
    ConnectionLimits connections = {};

    bool owns(uid_t user) const { return user == 0 || user == owner; }
    Access of(const Credentials &who) const;
    // The group that the socket and its directory belong to: all of its members may connect.
    std::optional<gid_t> socket_group() const { return read_group ? read_group : write_group; }
};

// Throws std::runtime_error when there is no such group.
gid_t group_named(const std::string &name);

} // namespace tav
