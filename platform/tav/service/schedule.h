// Who is served next: time is shared between users, and then between the connections of a user.
//
// Each has used a certain time. The one that has used least comes next. Whoever comes back after a
// pause is at most `credit` before those that are being served, so that nobody can save time up,
// and yet those who use little come before those who use all they get.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <set>
#include <utility>

namespace tav {

class Schedule {
public:
    using Id = std::uint64_t;
    using Duration = std::chrono::nanoseconds;
    static constexpr std::chrono::milliseconds credit{2};

    // A connection has something to do; nothing changes if it has already.
    void add(uid_t user, Id connection);
    // The connection has nothing to do, or is gone (`forget`).
    void remove(uid_t user, Id connection);
    void forget(uid_t user, Id connection);

    bool empty() const { return waiting.empty(); }
    // The one that comes next; there must be one. It stays until it is removed.
    Id next() const;
    // It has used so much more time.
    void charge(uid_t user, Id connection, Duration time);

private:
    struct Connection {
        Duration used{};
        bool waits = false;
    };
    struct User {
        Duration used{};
        Duration least{}; // of the connection that was served last
        std::map<Id, Connection> connections;
        std::set<std::pair<Duration, Id>> waiting;
    };

    std::map<uid_t, User> users;
    std::set<std::pair<Duration, uid_t>> waiting; // users with a waiting connection
    Duration least{};                             // of the user that was served last
};

} // namespace tav
