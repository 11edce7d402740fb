// What the service knows of one client: its registrations, its waiting events and its wake-ups.
#ifndef TAV_SERVICE_SESSION_H
#define TAV_SERVICE_SESSION_H

#include <cstdint>
#include <string>
#include <vector>

#include "service/event_queue.h"
#include "service/wake.h"

namespace tav {

class Session {
public:
    Session(const Ticket &given, std::uint32_t peer_pid, std::uint32_t peer_uid)
        : identity(given), process(peer_pid), user(peer_uid) {}

    const Ticket &ticket() const { return identity; }
    std::uint32_t pid() const { return process; }
    std::uint32_t uid() const { return user; }

    // Registers, or changes the flag of the registration of that path, and queues the notice.
    api_status_t register_events(const Registration &registration, Time now);
    // Queues an event if the client has registered for it; `own`: this client caused it.
    void offer(const Event &event, bool own, Time now);
    // A change of that leaf by another client was not fetched yet.
    bool unseen(const std::string &path) const { return queue.holds_foreign(path); }

    // The client's requests, after they were carried out; see Wake.
    void request(Time now) { wake.request(now, !queue.empty()); }
    bool ping(Time now) { return wake.ping(now); }
    std::vector<Event> fetch(Time now, bool &drain);

    std::optional<Time> wake_due() const { return wake.due(); }
    void wake_sent() { wake.sent(); }

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
    std::vector<Registered> registrations;
    EventQueue queue;
    Wake wake;
    bool overflow = false;
};

} // namespace tav

#endif
