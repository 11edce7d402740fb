#include "service/schedule.h"

#include <algorithm>

namespace tav {

namespace {

// Needs no memory, and so cannot fail.
template <typename Entry>
void move(std::set<Entry> &waiting, const Entry &entry, Schedule::Duration time) {
    auto node = waiting.extract(entry);
    if (!node.empty()) {
        node.value().first += time;
        waiting.insert(std::move(node));
    }
}

} // namespace

void Schedule::add(uid_t number, Id connection) {
    User &user = users[number];
    Connection &found = user.connections[connection];
    if (found.waits) {
        return;
    }
    found.used = std::max(found.used, user.least - credit);
    const bool first = user.waiting.empty();
    const auto added = user.waiting.emplace(found.used, connection).first;
    if (first) {
        try {
            user.used = std::max(user.used, least - credit);
            waiting.emplace(user.used, number);
        } catch (...) {
            user.waiting.erase(added);
            throw;
        }
    }
    found.waits = true;
}

void Schedule::remove(uid_t number, Id connection) {
    const auto user = users.find(number);
    if (user == users.end()) {
        return;
    }
    const auto found = user->second.connections.find(connection);
    if (found == user->second.connections.end() || !found->second.waits) {
        return;
    }
    found->second.waits = false;
    user->second.waiting.erase({found->second.used, connection});
    if (user->second.waiting.empty()) {
        waiting.erase({user->second.used, number});
    }
}

void Schedule::forget(uid_t number, Id connection) {
    remove(number, connection);
    const auto user = users.find(number);
    if (user != users.end()) {
        user->second.connections.erase(connection);
        if (user->second.connections.empty()) {
            users.erase(user);
        }
    }
}

Schedule::Id Schedule::next() const {
    return users.at(waiting.begin()->second).waiting.begin()->second;
}

void Schedule::charge(uid_t number, Id connection, Duration time) {
    const auto found = users.find(number);
    if (found == users.end() || found->second.connections.count(connection) == 0) {
        return; // it is gone
    }
    User &user = found->second;
    Connection &charged = user.connections.at(connection);
    least = std::max(least, user.used);
    user.least = std::max(user.least, charged.used);
    if (!user.waiting.empty()) {
        move(waiting, std::make_pair(user.used, number), time);
    }
    if (charged.waits) {
        move(user.waiting, std::make_pair(charged.used, connection), time);
    }
    charged.used += time;
    user.used += time;
}

} // namespace tav
