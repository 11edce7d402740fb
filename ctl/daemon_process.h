// Whether the daemon runs.
#pragma once

namespace ctl {

enum class daemon_t { running, absent, unknown };

// Looks for a process of the daemon's name in this network namespace. Unknown when there is one
// whose namespace may not be looked at, or /proc cannot be read.
daemon_t find_daemon();

} // namespace ctl
