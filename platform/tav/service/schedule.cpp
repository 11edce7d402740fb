#include "service/schedule.h"

#include <algorithm>

namespace tav {

template <typename Key>
void Line<Key>::add(Key key) {
    Member &member = members[key];
    if (!member.waits) {
        const Duration used = std::max(member.used, least - Schedule::credit);
        waiting.emplace(used, key);
        member.used = used;
        member.waits = true;
    }
}

template <typename Key>
void Line<Key>::remove(Key key) {
    const auto member = members.find(key);
    if (member != members.end() && member->second.waits) {
        member->second.waits = false;
        waiting.erase({member->second.used, key});
    }
}

template <typename Key>
void Line<Key>::forget(Key key) {
    remove(key);
    members.erase(key);
}

template <typename Key>
void Line<Key>::charge(Key key, Duration time) {
    const auto found = members.find(key);
    if (found == members.end()) {
        return; // it is gone
    }
    Member &member = found->second;
    least = std::max(least, member.used);
    auto node = waiting.extract({member.used, key});
    if (!node.empty()) {
        node.value().first += time;
        waiting.insert(std::move(node));
    }
    member.used += time;
}

void Schedule::add(uid_t number, Id connection, Kind kind) {
    User &user = known[number];
    user.remove(connection, kind == Kind::brief ? Kind::lengthy : Kind::brief);
    try {
        user.of(kind).add(connection);
        user.kinds.add(kind);
        users.add(number);
    } catch (...) {
        remove(number, connection);
        throw;
    }
}

void Schedule::User::remove(Id connection, Kind kind) {
    of(kind).remove(connection);
    if (of(kind).nobody_waits()) {
        kinds.remove(kind);
    }
}

void Schedule::remove(uid_t number, Id connection) {
    const auto user = known.find(number);
    if (user != known.end()) {
        user->second.remove(connection, Kind::brief);
        user->second.remove(connection, Kind::lengthy);
        if (user->second.kinds.nobody_waits()) {
            users.remove(number);
        }
    }
}

void Schedule::forget(uid_t number, Id connection) {
    remove(number, connection);
    const auto user = known.find(number);
    if (user == known.end()) {
        return;
    }
    bool none = true;
    for (Line<Id> &line : user->second.connections) {
        line.forget(connection);
        none = none && line.nobody_known();
    }
    if (none) {
        users.forget(number);
        known.erase(user);
    }
}

Schedule::Id Schedule::next() const {
    const User &user = known.at(users.next());
    return user.of(user.kinds.next()).next();
}

void Schedule::charge(uid_t number, Id connection, Kind kind, Duration time) {
    const auto user = known.find(number);
    if (user != known.end()) {
        users.charge(number, time);
        user->second.kinds.charge(kind, time);
        user->second.of(kind).charge(connection, std::min(time, longest_turn(kind)));
    }
}

} // namespace tav
