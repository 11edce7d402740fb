#include "shell/run_loop.h"

#include <exception>
#include <memory>
#include <sys/select.h>
#include <sys/socket.h>

#include <tav/mlr.h>
#include <tav/toolkit.h>

#include "netlink/channel.h"
#include "shell/log.h"
#include "shell/options.h"
#include "shell/signals.h"
#include "store/paths.h"
#include "store/tav_values.h"
#include "sync/sync.h"

namespace {

constexpr time_t pause_seconds = 10;
constexpr int receive_buffer_bytes = 8 * 1024 * 1024;

// The daemon's two connections, and which of the store's failures have been reported already.
class supervisor {
public:
    int run();
    // The channel first, then the store.
    void release();

private:
    void pause_if_due();
    bool connect_store();
    bool register_for_changes();
    void run_engine();
    void close_store();

    toolkit::CTav tav;
    std::unique_ptr<CNetlink> netlink;
    bool connect_failure_reported = false;
    bool register_failure_reported = false;
};

// Waits ten seconds, or until a termination signal. Its byte stays in the exit pipe, so later calls
// return at once.
void pause_on_exit_pipe() {
    fd_set readable;
    FD_ZERO(&readable);
    int highest = -1;
    // If the set cannot hold the descriptor, only a signal that arrives during the wait ends it.
    const int exit_fd = exit_descriptor();
    if (exit_fd >= 0 && exit_fd < FD_SETSIZE) {
        FD_SET(exit_fd, &readable);
        highest = exit_fd;
    }
    timeval timeout{pause_seconds, 0};
    select(highest + 1, &readable, nullptr, nullptr, &timeout);
}

// The kernel sends several datagrams for each address that a synchronisation adds; libnl's default
// of 32 KiB holds those of about forty additions. A failure (no privilege, or a low limit) is
// ignored: it only makes an overrun, and therefore a rebuild, more likely.
void widen_receive_buffer(int fd) {
    const int size = receive_buffer_bytes;
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0) {
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    }
}

int supervisor::run() {
    log_info_at(0, "Starting tandrel daemon");
    for (;;) {
        pause_if_due();
        netlink.reset();
        if (exit_requested != 0) {
            log_info_at(1, "Caught user-initiated exit signal...");
            log_info_at(0, "Exiting tandrel daemon");
            release();
            return 0;
        }
        if (!connect_store() || !register_for_changes()) {
            continue;
        }
        try {
            run_engine();
        } catch (const netlink_err &failure) {
            log_error_at(2, "Caught exception: %s", failure.what());
        } catch (const std::exception &) {
            log_error_at(2, "Caught exception");
        }
        connect_failure_reported = false;
        register_failure_reported = false;
    }
}

void supervisor::release() {
    netlink.reset();
    close_store();
}

// Pauses if the last pass had a connection to the store or failed to make one. So the first pass
// does not pause.
void supervisor::pause_if_due() {
    if (tav.handle != nullptr) {
        close_store();
        pause_on_exit_pipe();
    } else if (connect_failure_reported) {
        pause_on_exit_pipe();
    }
}

bool supervisor::connect_store() {
    tav.handle = mlr_init();
    if (tav.handle != nullptr) {
        return true;
    }
    if (!connect_failure_reported) {
        log_error_at(1, "Can't connect to TAV, sleeping");
        connect_failure_reported = true;
    }
    return false;
}

bool supervisor::register_for_changes() {
    api_status_t status = tav_value::status_unset;
    const int result =
        tav.event_register(paths::interfaces, tav_value::event_change, false, status);
    if (result == 0 && status == tav_value::status_ok) {
        return true;
    }
    connect_failure_reported = false;
    if (!register_failure_reported) {
        log_error_at(1, "Can't register for settings");
        register_failure_reported = true;
    }
    return false;
}

void supervisor::run_engine() {
    netlink = std::make_unique<CNetlink>();
    widen_receive_buffer(netlink->fd());
    CSync engine(&tav, netlink.get(), interface_string);
    engine.run();
}

void supervisor::close_store() {
    if (tav.handle != nullptr) {
        mlr_close(tav.handle);
        tav.handle = nullptr;
    }
}

} // namespace

int run_daemon() {
    supervisor daemon;
    try {
        return daemon.run();
    } catch (...) {
        // The loop cannot recover from this. Release by hand: no caller catches it, so the stack
        // may not be unwound.
        daemon.release();
        throw;
    }
}
