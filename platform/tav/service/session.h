// The service's data about one client: its registrations, its waiting events and its wake-ups.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "service/access.h"
#include "service/event_queue.h"
#include "service/wake.h"

namespace tav {

class Session {
public:
    Session(const Ticket &given, const Credentials &peer, bool writer)
        : identity(given), process(static_cast<std::uint32_t>(peer.pid)), user(peer.uid),
          writes(writer) {}

    const Ticket &ticket() const { return identity; }
    std::uint32_t pid() const { return process; }
    std::uint32_t uid() const { return user; }
    bool may_write() const { return writes; }

    // Adds a registration or changes the flag of the existing one for the path, and queues the
    // notice.
    api_status_t register_events(const Registration &registration, Time now);
    // Queues an event if the client has registered for it; `own`: this client caused it.
    void offer(const Event &event, bool own, Time now);
    // The client has not yet fetched a change of this leaf by another client.
    bool unseen(const std::string &path) const { return queue.holds_foreign(path); }

    // Called after the client's requests were carried out; see Wake.
    void request(Time now) { wake.request(now, !queue.empty()); }
    void ping(Time now) { wake.ping(now); }
    bool acknowledge(Time now) { return wake.acknowledge(now); }
    std::vector<Event> fetch(Time now, bool &drain);

    std::optional<Time> wake_due() const { return wake.due(); }
    void wake_sent() { wake.sent(); }

    std::size_t pending_events() const { return queue.size(); }
    std::size_t pending_bytes() const { return queue.size_bytes(); }
    // More events than the limits allow were not fetched: the client must be disconnected.
    bool overflowed() const { return overflow; }
    ClientStatus status() const;

private:
    struct Registered {
        std::string path;
        bool own_changes = false;
    };

    void add(const Event &event, bool foreign, Time now);

    Ticket identity;
    std::uint32_t process;
    std::uint32_t user;
    bool writes;
    std::vector<Registered> registrations;
    EventQueue queue;
    Wake wake;
    bool overflow = false;
};

} // namespace tav
