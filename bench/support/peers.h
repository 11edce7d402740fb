// The programs that the daemon is measured beside, each as it would set the same addresses.
#pragma once

#include <memory>
#include <string>

#include "harness/process.h"
#include "harness/sandbox.h"
#include "support/watcher.h"

namespace bench {

// systemd-networkd with the addresses 1 to `count` configured on eth0, in a mount namespace of its
// own where /sys is read-only and there is no bus.
class Networkd {
public:
    Networkd(kt::Sandbox &sandbox, int count);
    // When the program itself began, after its surroundings were made.
    time_point begun();
    pid_t pid() const { return process->pid(); }
    void stop();

private:
    std::unique_ptr<kt::Process> process;
};

// keepalived with the same addresses bound to a virtual router that it is the only owner of.
class Keepalived {
public:
    Keepalived(kt::Sandbox &sandbox, int count);
    // When it logged that it had become master, from which on it sets the addresses.
    time_point elected();
    // The process that holds the addresses; its parent only watches over it.
    pid_t worker() const;
    pid_t pid() const { return process->pid(); }
    void stop();

private:
    std::unique_ptr<kt::Process> process;
};

} // namespace bench
