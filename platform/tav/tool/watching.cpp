// watch.
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <iostream>

#include <nlohmann/json.hpp>

#include "tool/explain.h"
#include "tool/screen.h"
#include "tool/tool.h"

namespace tav::tool {

namespace {

using Clock = std::chrono::steady_clock;

const char *event_name(std::int32_t command) {
    switch (command) {
    case mlr_event_set:
        return "set";
    case mlr_event_removed:
        return "removed";
    default:
        return "changed";
    }
}

void print_event(const toolkit::CEvent &event, bool json) {
    if (json) {
        Json entry = Json::object();
        entry["event"] = event_name(event.command);
        add_text(entry, "path", event.path);
        std::cout << terminal::json_text(entry)
                  << std::endl; // flush each line at once for the reader
    } else {
        const Style style = event.command == mlr_event_removed ? Style::bad : Style::good;
        std::cout << painted(event_name(event.command), style) << ' ' << shown(event.path)
                  << std::endl;
    }
}

// Waits until the descriptor is readable; false if the time is over, even if it is readable:
// wake-ups may come faster than they are served.
bool wait_readable(int fd, const std::optional<Clock::time_point> &end) {
    while (!end || Clock::now() < *end) {
        int left = -1;
        if (end) {
            const auto rest = std::chrono::ceil<std::chrono::milliseconds>(*end - Clock::now());
            left = static_cast<int>(std::clamp<long long>(rest.count(), 0, 3600000));
        }
        pollfd entry{fd, POLLIN, 0};
        const int ready = ::poll(&entry, 1, left);
        if (ready > 0 || (ready < 0 && errno != EINTR)) {
            return true;
        }
    }
    return false;
}

} // namespace

int watch(Client &client, const Options &options) {
    const std::string &path = options.paths.front();
    api_status_t status = api_status_none;
    if (client.tav.event_register(path, api_event_change, true, status) != 0) {
        return exit_unreachable;
    }
    if (status != api_status_ok) {
        complain_reading(client, path, status, Wanted::anything);
        return exit_refused;
    }
    complain("watching " + shown(path));
    std::optional<Clock::time_point> end;
    if (options.timeout) {
        end = Clock::now() + std::chrono::milliseconds(std::llround(*options.timeout * 1000));
    }
    std::uint64_t seen = 0;
    while (wait_readable(mlr_get_fd(client.handle()), end)) {
        std::vector<toolkit::CEvent> events;
        if (client.tav.events_get(events) < 0) {
            return exit_unreachable;
        }
        for (const toolkit::CEvent &event : events) {
            if (event.command == mlr_event_notice) {
                continue;
            }
            print_event(event, options.json);
            if (!std::cout) {
                return exit_refused; // main prints the reason
            }
            if (++seen == options.count) {
                return exit_done;
            }
        }
    }
    // Fewer changes than requested.
    return options.count > 0 ? exit_refused : exit_done;
}

} // namespace tav::tool
