#include "service/session.h"

#include <algorithm>

#include "protocol/limits.h"
#include "service/path.h"

namespace tav {

Session::~Session() {
    for (const Registered &registered : registrations) {
        log.leave(*this, registered.path);
    }
}

api_status_t Session::register_events(const Registration &registration, Time now) {
    const api_status_t status = check_path(registration.path);
    if (status != api_status_ok) {
        return status;
    }
    if (registration.event != api_event_change) {
        return api_status_refused;
    }
    const auto known =
        std::find_if(registrations.begin(), registrations.end(),
                     [&registration](const Registered &r) { return r.path == registration.path; });
    if (known != registrations.end()) {
        known->own_changes = registration.own_changes;
    } else if (registrations.size() >= limits::registrations_per_client) {
        return api_status_too_many_registrations;
    } else {
        registrations.push_back(Registered{registration.path, registration.own_changes, log.end()});
        try {
            log.join(*this, registration.path);
        } catch (...) {
            registrations.pop_back();
            throw;
        }
    }
    add_notice(registration.path, now);
    return api_status_ok;
}

void Session::add_notice(const std::string &path, Time now) {
    notices.erase(std::remove_if(notices.begin(), notices.end(),
                                 [&path](const Notice &n) { return n.event.path == path; }),
                  notices.end());
    notices.push_back(Notice{Event{mlr_event_notice, path}, log.end()});
    too_far_behind = too_far_behind || notices.size() > limits::notices_per_client;
    wake.event(now);
}

bool Session::concerns(const std::string &path, SessionId author) const {
    return std::any_of(registrations.begin(), registrations.end(), [&](const Registered &r) {
        return r.path == path && (author != id() || r.own_changes);
    });
}

void Session::announce(const std::string &path, SessionId author, Time now) noexcept {
    if (concerns(path, author)) {
        wake.event(now);
    }
}

void Session::changed(const std::string &path, SessionId author, std::uint64_t before,
                      Time now) noexcept {
    if (!concerns(path, author)) {
        return;
    }
    if (!behind) {
        behind = true;
        position = before;
    }
    wake.event(now);
}

bool Session::wants(const LoggedEvent &event, std::uint64_t fetched_until) const {
    return event.position > fetched_until &&
           std::any_of(registrations.begin(), registrations.end(), [&](const Registered &r) {
               return event.position > r.since && is_at_or_below(event.event.path, r.path) &&
                      (r.own_changes || event.foreign_to(id(), fetched_until));
           });
}

Found Session::unseen(const std::string &path) const {
    constexpr std::size_t most = 10000;
    if (too_far_behind) {
        return true;
    }
    std::size_t left = most;
    bool there = false;
    if (std::any_of(registrations.begin(), registrations.end(),
                    [&path](const Registered &r) { return is_at_or_below(path, r.path); })) {
        there = unseen_below(path, left);
    } else {
        there = std::any_of(registrations.begin(), registrations.end(), [&](const Registered &r) {
            return is_at_or_below(r.path, path) && unseen_below(r.path, left);
        });
    }
    return {there, std::min(most, most - left)};
}

bool Session::unseen_below(const std::string &path, std::size_t &left) const {
    const auto unfetched = [this](const LoggedEvent &event) {
        return event.foreign_to(id(), fetched_to()) && wants(event, fetched_to());
    };
    return (behind && log.any_published(path, unfetched, left)) ||
           log.any_staged(path, unfetched, left);
}

std::optional<std::uint64_t> Session::keeps_after() const {
    if (too_far_behind || (!behind && fetching == nullptr)) {
        return std::nullopt;
    }
    return fetching != nullptr ? fetching->position() : position;
}

std::size_t Session::pending() const {
    constexpr int most = 10000;
    std::size_t number = notices.size();
    int seen = 0;
    const auto &events = log.published().events();
    for (auto event = events.rbegin(); behind && event != events.rend() && seen < most; ++event) {
        number += wants(*event, position) ? 1U : 0U;
        ++seen;
    }
    return number;
}

ClientStatus Session::status(Time now) const {
    ClientStatus status;
    status.session = id();
    status.pid = process;
    status.uid = user;
    status.may_write = writes;
    status.registrations = static_cast<std::uint32_t>(registrations.size());
    status.pending = pending();
    status.signalled = wake.signalled();
    if (listed) {
        const auto since = std::chrono::duration_cast<std::chrono::milliseconds>(now - *listed);
        status.listed = static_cast<std::uint64_t>(since.count());
    }
    return status;
}

Fetch::Fetch(Session &client, Time now)
    : session(client), begin(client.fetched_to()), end(client.log.end()), done(begin),
      next(client.log.published().events().end()) {
    client.log.published().follow(next);
    notices.swap(client.notices);
    client.behind = false;
    client.fetching = this;
    drains = client.wake.fetch(now);
}

Fetch::~Fetch() {
    session.fetching = nullptr;
    session.log.published().leave(next);
}

// From the end: another client may keep many older events in the log.
bool Fetch::find_first() {
    constexpr int at_once = 20000;
    const auto first = session.log.published().events().begin();
    for (int i = 0; i < at_once && !found; ++i) {
        found = next == first || std::prev(next)->position <= begin;
        next = found ? next : std::prev(next);
    }
    return found;
}

bool Fetch::advance(std::vector<const Event *> &part) {
    constexpr int at_once = 512;
    part.clear();
    if (session.overflowed()) {
        return false; // its events may be gone; it will be disconnected
    }
    if (!found && !find_first()) {
        return true;
    }
    const auto last = session.log.published().events().end();
    std::size_t bytes = 0; // of the part
    for (int i = 0; i < at_once && bytes < limits::reply_part_bytes; ++i, ++next) {
        if (next == last || next->position > end) {
            take_notices(end + 1, part);
            return false;
        }
        take_notices(next->position, part);
        if (session.wants(*next, begin)) {
            part.push_back(&next->event);
            bytes += next->event.path.size();
        }
        done = next->position;
    }
    return true;
}

// Those that came before that event.
void Fetch::take_notices(std::uint64_t until, std::vector<const Event *> &part) {
    for (; notices_taken < notices.size() && notices[notices_taken].position < until;
         ++notices_taken) {
        part.push_back(&notices[notices_taken].event);
    }
}

} // namespace tav
