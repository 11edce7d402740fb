#include <cstdio>
#include <unistd.h>

#include "shell/log.h"
#include "shell/options.h"
#include "shell/process.h"
#include "shell/run_loop.h"
#include "shell/signals.h"

int main(int argc, char *argv[]) {
    // The exit pipe must not be closed as a standard descriptor when the process detaches.
    occupy_standard_descriptors();
    register_handlers();
    if (!parse_options(argc, argv)) {
        return 1;
    }
    if (daemon_mode) {
        if (daemonize() != 0) {
            std::fputs("Error fork()ing new process\n", stderr);
            return 1;
        }
        renew_exit_pipe();
    }
    // Only now, so that the connection to the system log belongs to the process that keeps running.
    open_log();

    // The calls that need privileges come before the one that drops them.
    if (nice_priority >= -20) {
        set_nice_priority(nice_priority);
    }
    if (rt_sched_request) {
        set_rt_scheduling(*rt_sched_request);
    }
    if (run_as_uid != getuid()) {
        switch_user(run_as_uid);
    }

    const int result = run_daemon();
    unregister_handlers();
    return result;
}
