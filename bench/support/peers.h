// The programs that the daemon is compared with, each configured with the same addresses.
#pragma once

#include <memory>
#include <string>

#include "harness/process.h"
#include "harness/sandbox.h"
#include "support/watcher.h"

namespace bench {

// systemd-networkd with the addresses 1 to `count` configured on eth0, in its own mount namespace,
// where /sys is read-only and there is no bus.
class Networkd {
public:
    Networkd(kt::Sandbox &sandbox, int count);
    // When the program itself started, after its environment was prepared.
    time_point begun();
    pid_t pid() const { return process->pid(); }
    void stop();

private:
    std::unique_ptr<kt::Process> process;
};

// keepalived with the same addresses, bound to a virtual router of which it is the only owner.
class Keepalived {
public:
    Keepalived(kt::Sandbox &sandbox, int count);
    // When it logged that it had become master, from which on it sets the addresses.
    time_point elected();
    // The process that manages the addresses; its parent only supervises it.
    pid_t worker() const;
    pid_t pid() const { return process->pid(); }
    void stop();

private:
    std::unique_ptr<kt::Process> process;
};

} // namespace bench
