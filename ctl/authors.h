// Who changed the settings, as the store's history says.
#pragma once

#include <cstdint>
#include <deque>
#include <string>

#include "ctl/tool.h"

namespace ctl {

class authors_t {
public:
    // Reads what was changed since the last call; the first call only notes the present state.
    // Without a connection or a history it does nothing.
    void update(client_t &client);
    // Who made the latest of those changes at or below the path: "tandrel", "root (tav)",
    // "root (process 42)"; empty if that is not known.
    std::string of(const std::string &path) const;

private:
    struct change_t {
        std::string path;
        std::string author;
    };
    std::deque<change_t> changes;    // the latest ones, oldest first
    std::uint64_t last = UINT64_MAX; // the number of the last transaction that was read
};

} // namespace ctl
