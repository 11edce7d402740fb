// The two members of the engine that drive it: discovery and the loop, and one cycle of it.

#include <algorithm>
#include <cerrno>
#include <initializer_list>
#include <sys/select.h>

#include <tav/mlr.h>

#include "shell/log.h"
#include "shell/signals.h"
#include "store/tav_values.h"
#include "sync/errors.h"
#include "sync/sync.h"

namespace {

constexpr const char *watchdog_name = "tandrel";
constexpr int watchdog_period_seconds = 60;
// Well within the watchdog's period, since every successful select is followed by a ping.
constexpr time_t select_seconds = 30;

constexpr const char *listen_signature = "int CSync::listen()";

// Waits until one of the descriptors is readable; negative ones are ignored. Returns the result of
// select(2), and leaves its error in errno.
int wait_for(std::initializer_list<int> descriptors, fd_set &readable) {
    FD_ZERO(&readable);
    for (const int fd : descriptors) {
        if (fd >= FD_SETSIZE) { // FD_SET would write past the end of the set
            throw sync_err(
                error_text("%s: descriptor %d does not fit select()", listen_signature, fd));
        }
        if (fd >= 0) {
            FD_SET(fd, &readable);
        }
    }
    timeval timeout{select_seconds, 0};
    log_info_at(4, "Entering select()...");
    const int ready = select(std::max(descriptors) + 1, &readable, nullptr, nullptr, &timeout);
    const int select_errno = errno;
    log_info_at(4, "select() returned.");
    errno = select_errno;
    return ready;
}

} // namespace

int CSync::run() {
    api_status_t status = tav_value::status_unset;
    tav->watchdog_register(status, watchdog_name, watchdog_period_seconds, true);
    discover();
    int result = 0;
    while ((result = listen()) == 0) {
        if (state != state_normal && dumps.is_overdue()) {
            throw sync_err(error_text("%s: discovery did not end in time", "int CSync::run()"));
        }
    }
    return result;
}

int CSync::listen() {
    const int store_fd = tav->handle != nullptr ? mlr_get_fd(tav->handle) : -1;
    const int netlink_fd = netlink->fd();
    const int exit_fd = exit_descriptor();

    fd_set readable;
    const int ready = wait_for({store_fd, netlink_fd, exit_fd}, readable);
    if (ready < 0) {
        // A termination signal ends up here as well; the run loop honours it.
        throw sync_err(error_text("%s: select() returned %d", listen_signature, errno));
    }

    api_status_t status = tav_value::status_unset;
    tav->watchdog_ping(status);
    if (exit_fd < 0 && exit_requested != 0) {
        return 1; // without a pipe, a signal that arrived just before select did not interrupt it
    }
    if (ready == 0) {
        return 0;
    }

    // One source per cycle; the others stay ready.
    if (exit_fd >= 0 && FD_ISSET(exit_fd, &readable)) {
        return exit_requested != 0 ? 1 : 0;
    }
    if (store_fd >= 0 && FD_ISSET(store_fd, &readable)) {
        handle_tav_update();
        return 0;
    }
    handle_netlink();
    return 0;
}
