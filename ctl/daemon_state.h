// Whether the daemon works.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "ctl/reasons.h"

namespace ctl {

class client_t;

enum class daemon_t {
    working,      // connected to the store
    hangs,        // connected, but the store's watchdog is overdue
    disconnected, // no connection to the store; a process may exist
    absent,       // no process either
    unknown
};

struct daemon_state_t {
    daemon_t state = daemon_t::unknown;
    std::uint32_t pid = 0;   // 0: unknown
    std::uint64_t since = 0; // milliseconds since its last sign of life, while it is connected
    std::string why;         // why the state is unknown
    // Milliseconds since the daemon last listed the stored interfaces, as it does at each
    // synchronisation and at no other time.
    std::optional<std::uint64_t> synchronised = std::nullopt;
    // The prefix of the links that it manages, while it is connected; empty: not known.
    std::optional<std::string> prefix = std::nullopt;
};

// Asks the store for the daemon's watchdog, for which no special right is needed, and looks for a
// process of the daemon's name in this network namespace. With another provider's store, which
// cannot be asked, a process counts as working.
daemon_state_t find_daemon(client_t &client);

// Whether a change of the store makes it synchronise, as far as is known.
bool synchronises(const daemon_state_t &daemon);

// The finding that says so; empty when it works.
std::optional<finding_t> daemon_finding(const daemon_state_t &daemon);

// What `check` says when there is no difference.
const char *verdict(daemon_t state);

// The finding that it manages links with another prefix than this one.
std::optional<finding_t> prefix_finding(const daemon_state_t &daemon, const std::string &prefix);

// The command line that does this ("start", "restart") to the daemon on this host. `pid`: its
// process, if that is known.
std::string service_command(const std::string &verb, const std::string &pid);

} // namespace ctl
