#include "service/access.h"

#include <grp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace tav {

Credentials credentials_of(int fd) {
    ucred peer{};
    socklen_t length = sizeof peer;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) {
        throw std::runtime_error(std::string("SO_PEERCRED: ") + std::strerror(errno));
    }
    Credentials who{peer.pid, peer.uid, peer.gid, std::vector<gid_t>(32)};
    // If there is not enough room, the kernel returns the size that is needed.
    for (;;) {
        length = static_cast<socklen_t>(who.groups.size() * sizeof(gid_t));
        const int result = ::getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, who.groups.data(), &length);
        if (result != 0 && errno != ERANGE) {
            throw std::runtime_error(std::string("SO_PEERGROUPS: ") + std::strerror(errno));
        }
        who.groups.resize(length / sizeof(gid_t));
        if (result == 0) {
            return who;
        }
    }
}

ConnectionLimits connection_limits(std::size_t descriptors) {
    constexpr std::size_t own_files = 20; // of the service and its database, with a margin
    constexpr std::size_t least_kept = 8; // four clients
    constexpr std::size_t least = own_files + least_kept + 4;
    if (descriptors < least) {
        throw std::runtime_error("the limit of open files is " + std::to_string(descriptors) +
                                 "; raise it (ulimit -n) to at least " + std::to_string(least));
    }
    ConnectionLimits result;
    result.all = std::min(descriptors - own_files, limits::connections);
    result.kept = std::clamp(result.all / 8, least_kept, limits::connections_kept);
    result.per_user =
        std::clamp((result.all - result.kept) / 2, least_kept, limits::connections_per_user);
    return result;
}

Access Rights::of(const Credentials &who) const {
    const auto member = [&who](const std::optional<gid_t> &group) {
        return group && (who.gid == *group || std::find(who.groups.begin(), who.groups.end(),
                                                        *group) != who.groups.end());
    };
    if (owns(who.uid) || member(write_group)) {
        return Access::write;
    }
    return member(read_group) ? Access::read : Access::none;
}

gid_t group_named(const std::string &name) {
    errno = 0;
    const group *found = ::getgrnam(name.c_str()); // NOLINT(concurrency-mt-unsafe): no threads here
    if (found == nullptr) {
        throw std::runtime_error("there is no group '" + name + "'" +
                                 (errno != 0 ? std::string(": ") + std::strerror(errno) : ""));
    }
    return found->gr_gid;
}

} // namespace tav
