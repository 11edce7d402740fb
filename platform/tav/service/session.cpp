#include "service/session.h"

#include <algorithm>
#include <new>

#include "protocol/limits.h"
#include "service/path.h"

namespace tav {

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
        registrations.push_back(Registered{registration.path, registration.own_changes});
    }
    add(Event{mlr_event_notice, registration.path}, true, now);
    return api_status_ok;
}

void Session::offer(const Event &event, bool own, Time now) {
    const bool wanted = std::any_of(
        registrations.begin(), registrations.end(), [&event, own](const Registered &registered) {
            return (!own || registered.own_changes) && is_at_or_below(event.path, registered.path);
        });
    if (wanted) {
        add(event, !own, now);
    }
}

void Session::add(const Event &event, bool foreign, Time now) {
    try {
        overflow = !queue.add(event, foreign) || overflow;
    } catch (const std::bad_alloc &) {
        // The change has been made: a client that cannot be informed of it must start again.
        overflow = true;
    }
    wake.event(now);
}

std::vector<Event> Session::fetch(Time now, bool &drain) {
    drain = wake.fetch(now);
    return queue.take();
}

ClientStatus Session::status() const {
    ClientStatus status;
    status.session = identity.session;
    status.pid = process;
    status.uid = user;
    status.may_write = writes;
    status.registrations = static_cast<std::uint32_t>(registrations.size());
    status.pending = queue.size();
    status.signalled = wake.signalled();
    return status;
}

} // namespace tav
