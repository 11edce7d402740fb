#include "shell/process.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include "shell/log.h"

namespace {

// Waits for the intermediate child; returns non-zero when a signal ended it or it reported a
// failure. If wait fails because SIGCHLD is ignored (an inherited setting), the child counts as
// successful.
int wait_for_child() {
    int status = 0;
    while (wait(&status) == -1 && errno == EINTR) {
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1;
}

// Gives up the invoking shell's directory, descriptors and file mode mask.
int leave_surroundings() {
    if (chdir("/") != 0) {
        return -1;
    }
    close(0);
    close(1);
    close(2);
    // Each call takes the lowest free descriptor: 0, then 1, then 2.
    if (open("/dev/null", O_RDWR) == -1 || dup(0) == -1 || dup(0) == -1) {
        return 1;
    }
    umask(022);
    return 0;
}

} // namespace

void occupy_standard_descriptors() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(fd, F_GETFD) == -1) {
            // open takes the lowest free descriptor, which is this one. If it fails, the descriptor
            // stays closed.
            open("/dev/null", O_RDWR);
        }
    }
}

int daemonize() {
    const pid_t child = fork();
    if (child == -1) {
        return 1;
    }
    if (child != 0) {
        if (wait_for_child() != 0) {
            return 1;
        }
        std::exit(0);
    }

    // A new session, then a process that is not its leader: it can never acquire a terminal.
    setsid();
    const pid_t grandchild = fork();
    if (grandchild != 0) {
        std::exit(grandchild == -1 ? 1 : 0);
    }
    return leave_surroundings();
}

void set_nice_priority(std::int32_t priority) {
    if (setpriority(PRIO_PROCESS, 0, priority) != 0) {
        log_warning("Couldn't set specified process scheduling parameters");
    }
}

void set_rt_scheduling(const rt_sched_request_t &request) {
    sched_param param{};
    param.sched_priority = request.priority;
    if (sched_setscheduler(0, request.policy, &param) != 0) {
        log_warning("Couldn't set specified [RT] thread scheduling parameters");
    }
}

void switch_user(std::uint32_t uid) {
    // A daemon with the wrong identity is more useful than no daemon.
    if (setuid(uid) != 0) {
        log_error("Can't setuid(%u)", uid);
    }
}
