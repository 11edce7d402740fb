// The watchdog: clients that announced to ping, and whether they do.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "protocol/messages.h"
#include "service/wake.h"

namespace tav {

// Logs one line when a client is overdue, when it pings again, and when it disconnects without a
// withdrawal.
class Watchdog {
public:
    // Announces, changes or (not enabled) withdraws the watchdog of a client, which has at most
    // one. A client may reuse the name of a client that has disconnected.
    api_status_t announce(std::uint64_t session, std::uint32_t pid, const WatchdogRequest &request,
                          Time now);
    // api_status_absent for a client that has announced nothing.
    api_status_t ping(std::uint64_t session, Time now);
    // The client's connection ended.
    void depart(std::uint64_t session);
    // Checks for overdue clients.
    void check(Time now);
    // The name of a client's watchdog; null if it has none.
    const std::string *name_of(std::uint64_t session) const;
    // The time when the next client will be overdue.
    std::optional<Time> next_check() const;

    std::vector<WatchdogStatus> status(Time now) const;

private:
    struct Entry {
        std::uint64_t session = 0;
        std::uint32_t pid = 0;
        std::string name;
        std::int32_t period = 0; // seconds
        Time last_ping;
        WatchdogState state = WatchdogState::fine;
    };

    Entry *find(std::uint64_t session);
    const Entry *find(std::uint64_t session) const;
    static Time deadline(const Entry &entry);
    void forget(const std::string &name);

    std::vector<Entry> entries; // includes disconnected ones, up to their limit
};

} // namespace tav
