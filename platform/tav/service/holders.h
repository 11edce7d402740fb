// Which clients may answer from a read-ahead, and of which node. Each holds at most one.
//
// Before readers see a change below that node, its holder gets one notice, and from then on holds
// nothing. A client that reads after that either asks the service or finds the notice first.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "service/tree.h"

namespace tav {

class Holders {
public:
    using SessionId = std::uint64_t;
    // Sends the notice for the request with that serial number, or ends the connection: when it
    // returns, the client cannot receive anything else before. It must not throw.
    using Notify = std::function<void(SessionId, std::uint32_t serial)>;

    void set_notify(Notify function) { notify = std::move(function); }

    // The session has read everything below that node of the tree that readers see. What it held
    // before it has given up.
    void hold(SessionId session, std::uint32_t serial, std::string path) {
        held[session] = {serial, std::move(path)};
    }
    void release(SessionId session) noexcept { held.erase(session); }
    std::size_t number() const { return held.size(); }

    // Readers are about to see `after` instead of `before`.
    void change(const Tree &before, const Tree &after) noexcept;

private:
    struct Held {
        std::uint32_t serial = 0; // of the request
        std::string path;
    };
    std::map<SessionId, Held> held;
    Notify notify;
};

} // namespace tav
