// Who may use the store: decided by what the kernel reports about the process at the other end.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

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

// Root and the user that the service runs as may do everything; other users may do what one of
// their groups may do.
struct Rights {
    uid_t owner = 0;
    std::optional<gid_t> write_group;
    std::optional<gid_t> read_group;

    bool owns(uid_t user) const { return user == 0 || user == owner; }
    Access of(const Credentials &who) const;
    // The group that the socket and its directory belong to: all of its members may connect.
    std::optional<gid_t> socket_group() const { return read_group ? read_group : write_group; }
};

// Throws std::runtime_error when there is no such group.
gid_t group_named(const std::string &name);

} // namespace tav
