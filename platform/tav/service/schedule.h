// Who is served next: time is shared between users, then between the short and the long requests of
// a user, and then between the connections that have sent them. A short request therefore waits for
// one turn of the long ones, however many there are.
//
// Whoever has used the least time is served next. Somebody who comes back after a pause is treated
// as having used at most `credit` less than those being served. So nobody can save up time, and yet
// those who use little come before those who use all they get.
#pragma once

#include <sys/types.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <utility>

namespace tav {

// Those who share time with each other.
template <typename Key>
class Line {
public:
    using Duration = std::chrono::nanoseconds;

    bool known(Key key) const { return members.count(key) > 0; }
    bool nobody_known() const { return members.empty(); }
    bool nobody_waits() const { return waiting.empty(); }
    Key next() const { return waiting.begin()->second; }

    void add(Key key);
    void remove(Key key);
    void forget(Key key);
    void charge(Key key, Duration time); // needs no memory, and so cannot fail

private:
    struct Member {
        Duration used{};
        bool waits = false;
    };
    std::map<Key, Member> members;
    std::set<std::pair<Duration, Key>> waiting;
    Duration least{}; // of the one that was served last
};

class Schedule {
public:
    using Id = std::uint64_t;
    using Duration = std::chrono::nanoseconds;
    enum class Kind : std::uint8_t { brief, lengthy };
    static constexpr std::chrono::milliseconds credit{2};
    // A turn ends after this time; a request that took longer than a brief one's is lengthy. No
    // connection is charged with more for a turn, only its user: what could not be divided, or when
    // another program had the processor, must not make it wait until each of many other connections
    // of its user has used as much.
    static constexpr Duration longest_turn(Kind kind) {
        return std::chrono::microseconds(kind == Kind::brief ? 250 : 2000);
    }

    // A connection has something to do, of that kind.
    void add(uid_t user, Id connection, Kind kind);
    // The connection has nothing to do, or is gone (`forget`).
    void remove(uid_t user, Id connection);
    void forget(uid_t user, Id connection);

    bool empty() const { return users.nobody_waits(); }
    // The one that comes next; there must be one. It stays until it is removed.
    Id next() const;
    // The connection has used this time for a request of that kind.
    void charge(uid_t user, Id connection, Kind kind, Duration time);

private:
    struct User {
        Line<Kind> kinds;
        std::array<Line<Id>, 2> connections; // of each kind

        Line<Id> &of(Kind kind) { return connections.at(static_cast<std::size_t>(kind)); }
        const Line<Id> &of(Kind kind) const {
            return connections.at(static_cast<std::size_t>(kind));
        }
        void remove(Id connection, Kind kind);
    };

    std::map<uid_t, User> known;
    Line<uid_t> users;
};

} // namespace tav
