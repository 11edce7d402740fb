#include "service/holders.h"

namespace tav {

namespace {

// A change copies every element on the way to it, so two trees share a node's children exactly
// while nothing below the node differs. `before` keeps its elements alive: a new one never has the
// address of an old one.
bool differs_below(const std::string &path, const Tree &before, const Tree &after) {
    const Element *const then = before.find(path);
    const Element *const now = after.find(path);
    return then == nullptr || now == nullptr || then->content != now->content ||
           then->children != now->children;
}

} // namespace

void Holders::change(const Tree &before, const Tree &after) noexcept {
    for (auto holder = held.begin(); holder != held.end();) {
        if (!differs_below(holder->second.path, before, after)) {
            ++holder;
            continue;
        }
        const SessionId session = holder->first;
        const std::uint32_t serial = holder->second.serial;
        holder = held.erase(holder);
        if (notify) {
            notify(session, serial);
        }
    }
}

} // namespace tav
