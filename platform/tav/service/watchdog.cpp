#include "service/watchdog.h"

#include <algorithm>
#include <utility>

#include "protocol/limits.h"
#include "service/log.h"

namespace tav {

Watchdog::Entry *Watchdog::find(std::uint64_t session) {
    return const_cast<Entry *>(std::as_const(*this).find(session));
}

const Watchdog::Entry *Watchdog::find(std::uint64_t session) const {
    const auto entry = std::find_if(entries.begin(), entries.end(), [session](const Entry &e) {
        return e.session == session && e.state != WatchdogState::gone;
    });
    return entry == entries.end() ? nullptr : &*entry;
}

Time Watchdog::deadline(const Entry &entry) {
    return entry.last_ping + std::chrono::seconds(entry.period);
}

void Watchdog::forget(const std::string &name) {
    entries.erase(std::remove_if(entries.begin(), entries.end(),
                                 [&name](const Entry &entry) {
                                     return entry.state == WatchdogState::gone &&
                                            entry.name == name;
                                 }),
                  entries.end());
}

api_status_t Watchdog::announce(std::uint64_t session, std::uint32_t pid,
                                const WatchdogRequest &request, Time now) {
    Entry *entry = find(session);
    if (!request.enabled) {
        if (entry == nullptr) {
            return api_status_absent;
        }
        entries.erase(entries.begin() + (entry - entries.data()));
        return api_status_ok;
    }
    if (request.name.empty() || request.name.find('\0') != std::string::npos ||
        request.period <= 0) {
        return api_status_bad_value;
    }
    if (request.name.size() > limits::watchdog_name_bytes) {
        return api_status_name_too_long;
    }
    forget(request.name);
    entry = find(session);
    if (entry == nullptr) {
        entry = &entries.emplace_back();
    }
    *entry = Entry{session, pid, request.name, request.period, now, WatchdogState::fine};
    return api_status_ok;
}

api_status_t Watchdog::ping(std::uint64_t session, Time now) {
    Entry *entry = find(session);
    if (entry == nullptr) {
        return api_status_absent;
    }
    entry->last_ping = now;
    if (entry->state == WatchdogState::overdue) {
        entry->state = WatchdogState::fine;
        log_line("watchdog '%s' (process %u) pings again", entry->name.c_str(), entry->pid);
    }
    return api_status_ok;
}

void Watchdog::depart(std::uint64_t session) {
    Entry *entry = find(session);
    if (entry == nullptr) {
        return;
    }
    entry->state = WatchdogState::gone;
    log_line("watchdog '%s' (process %u) disconnected", entry->name.c_str(), entry->pid);
    const auto is_gone = [](const Entry &e) { return e.state == WatchdogState::gone; };
    const auto departed = std::count_if(entries.begin(), entries.end(), is_gone);
    if (static_cast<std::size_t>(departed) > limits::departed_watchdogs) {
        entries.erase(std::find_if(entries.begin(), entries.end(), is_gone));
    }
}

void Watchdog::check(Time now) {
    for (Entry &entry : entries) {
        if (entry.state == WatchdogState::fine && now >= deadline(entry)) {
            entry.state = WatchdogState::overdue;
            log_line("watchdog '%s' (process %u) is overdue: no ping for %d s", entry.name.c_str(),
                     entry.pid, entry.period);
        }
    }
}

const std::string *Watchdog::name_of(std::uint64_t session) const {
    const Entry *entry = find(session);
    return entry != nullptr ? &entry->name : nullptr;
}

std::optional<Time> Watchdog::next_check() const {
    std::optional<Time> next;
    for (const Entry &entry : entries) {
        if (entry.state == WatchdogState::fine && (!next || deadline(entry) < *next)) {
            next = deadline(entry);
        }
    }
    return next;
}

std::vector<WatchdogStatus> Watchdog::status(Time now) const {
    std::vector<WatchdogStatus> result;
    for (const Entry &entry : entries) {
        const auto since =
            std::chrono::duration_cast<std::chrono::milliseconds>(now - entry.last_ping).count();
        result.push_back(WatchdogStatus{entry.name, entry.pid, entry.period,
                                        static_cast<std::uint64_t>(std::max<long long>(since, 0)),
                                        entry.state});
    }
    return result;
}

} // namespace tav
