// The service's data about one client: its registrations, the events it has not fetched, and its
// wake-ups.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "service/access.h"
#include "service/event_log.h"
#include "service/wake.h"

namespace tav {

class Session {
public:
    // `events` must outlive the session.
    Session(const Ticket &given, const Credentials &peer, bool writer, EventLog &events)
        : identity(given), process(static_cast<std::uint32_t>(peer.pid)), user(peer.uid),
          writes(writer), log(events) {}
    ~Session();
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    const Ticket &ticket() const { return identity; }
    SessionId id() const { return identity.session; }
    std::uint32_t pid() const { return process; }
    std::uint32_t uid() const { return user; }
    bool may_write() const { return writes; }
    // As the client called itself.
    std::string program;

    // Adds a registration or changes the flag of the existing one for the path, and queues the
    // notice. Nothing may be staged in the log.
    api_status_t register_events(const Registration &registration, Time now);
    std::size_t registered() const { return registrations.size(); }
    // Queues an event that reports no change.
    void add_notice(const std::string &path, Time now);

    // Called by the log for an event below a path that is registered here; `before`: the position
    // of the last event before those that are published now.
    void changed(const std::string &path, SessionId author, std::uint64_t before,
                 Time now) noexcept;
    // The same before they are published: only wakes the client.
    void announce(const std::string &path, SessionId author, Time now) noexcept;
    // The client has not yet fetched a change by another client of a leaf at or below that path, be
    // it committed or only staged; or so many events wait there that finding out takes too long.
    // Always so once it has overflowed: what it missed is unknown.
    Found unseen(const std::string &path) const;
    // Events wait.
    bool waiting() const { return behind || !notices.empty(); }
    // The log keeps the events after fetched_to() for this client.
    bool is_behind() const { return behind; }
    std::uint64_t fetched_to() const { return behind ? position : log.end(); }
    // The number of events that wait; of a long log only the last 10,000 are counted.
    std::size_t pending() const;

    // Called after the client's requests were carried out; see Wake.
    void request(Time now) { wake.request(now, waiting()); }
    void ping(Time now) { wake.ping(now); }
    bool acknowledge(Time now) { return wake.acknowledge(now); }
    std::optional<Time> wake_due() const { return wake.due(); }
    void wake_sent() { wake.sent(); }

    // More events than the limits allow were not fetched: the client must be disconnected.
    void overflow() {
        too_far_behind = true;
        behind = false;
    }
    bool overflowed() const { return too_far_behind; }
    // The client asked for the children of a node.
    void list(Time now) { listed = now; }
    ClientStatus status(Time now) const;

private:
    friend class Fetch;

    struct Registered {
        std::string path;
        bool own_changes = false;
        std::uint64_t since = 0; // the position in the log
    };
    struct Notice {
        Event event;
        std::uint64_t position = 0; // of the last event before it
    };

    bool unseen_below(const std::string &path, std::size_t &left) const;
    bool concerns(const std::string &path, SessionId author) const;
    bool wants(const LoggedEvent &event, std::uint64_t fetched_until) const;

    Ticket identity;
    std::uint32_t process;
    std::uint32_t user;
    bool writes;
    EventLog &log;
    std::vector<Registered> registrations;
    std::vector<Notice> notices;
    bool behind = false;
    std::uint64_t position = 0; // while behind: of the last event that was fetched
    bool too_far_behind = false;
    std::optional<Time> listed; // the last time
    Wake wake;
};

// Everything that waits for a client at one moment, collected a part at a time. Meanwhile the log
// must be held, and the client's registrations must not change.
class Fetch {
public:
    // Nothing waits for the client afterwards.
    Fetch(Session &client, Time now);
    // Returns true when everything is collected. Takes less than a millisecond.
    bool collect();
    // The latest event first. Valid as long as this object, and while the log is held.
    std::vector<const Event *> events;
    bool drain; // see ReplyHeader

private:
    void take_notices(std::uint64_t until);

    const Session &session;
    std::vector<Session::Notice> notices;
    std::uint64_t fetched_until;
    EventBatch::Events::const_reverse_iterator next;
    std::vector<Session::Notice>::const_reverse_iterator notice;
};

} // namespace tav
