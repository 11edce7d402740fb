// Whether the daemon runs.
#pragma once

namespace ctl {

enum class daemon_t { running, absent, unknown };

// Looks for a process of the daemon's name in this network namespace. Unknown when this process may
// not read the namespace of such a process, or /proc cannot be read.
daemon_t find_daemon();

} // namespace ctl
