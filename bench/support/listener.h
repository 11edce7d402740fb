// A client that gets an event for every change of the store, its own included.
#pragma once

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include <tav/mlr.h>
#include <tav/toolkit.h>

namespace bench {

class Listener {
public:
    // Throws std::runtime_error when the service cannot be reached.
    explicit Listener(const std::string &socket) {
        setenv("TAV_SOCKET", socket.c_str(), 1);
        tav = toolkit::CTav(mlr_init());
        unsetenv("TAV_SOCKET");
        api_status_t status = api_status_none;
        if (tav.event_register("/", api_event_change, true, status) != 0) {
            throw std::runtime_error("cannot register with the store");
        }
        fetch();
    }
    ~Listener() { mlr_close(tav.handle); }
    Listener(const Listener &) = delete;
    Listener &operator=(const Listener &) = delete;

    // Readable when there are events to fetch.
    int fd() const { return mlr_get_fd(tav.handle); }
    void fetch() {
        std::vector<toolkit::CEvent> events;
        tav.events_get(events);
    }
    toolkit::CTav tav;
};

} // namespace bench
