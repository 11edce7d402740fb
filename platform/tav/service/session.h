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

class Fetch;

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
    // The name that the client gave itself.
    std::string program;

    // Adds a registration, or changes the flag of the existing one for the path, and queues a
    // notice of it. No events may be staged in the log.
    api_status_t register_events(const Registration &registration, Time now);
    std::size_t registered() const { return registrations.size(); }
    // Queues an event that reports no change.
    void add_notice(const std::string &path, Time now);

    // Called by the log for an event below a path that is registered here; `before`: the position
    // of the last event before those that are published now.
    void changed(const std::string &path, SessionId author, std::uint64_t before,
                 Time now) noexcept;
    // The same before the events are published: only wakes the client.
    void announce(const std::string &path, SessionId author, Time now) noexcept;
    // Whether another client has changed a leaf at or below that path, and this client has not yet
    // fetched the event, which may be published or only staged. Also true if too many events wait
    // there to find out in time, and after overflow(), when what the client missed is unknown.
    Found unseen(const std::string &path) const;
    // Whether events wait.
    bool waiting() const { return behind || !notices.empty(); }
    // The log keeps the events after this position for the client. Empty if there are none.
    std::optional<std::uint64_t> keeps_after() const;
    // The number of events that wait; only the last 10,000 events of the log are considered,
    // without those that are being merged.
    std::size_t pending() const;

    // Called after the client's requests were carried out; see Wake.
    void request(Time now) { wake.request(now, waiting()); }
    void ping(Time now) { wake.ping(now); }
    bool acknowledge(Time now) { return wake.acknowledge(now); }
    std::optional<Time> wake_due() const { return wake.due(); }
    void wake_sent() { wake.sent(); }

    // Called when more events wait than the limits allow: the client must be disconnected.
    void overflow() {
        too_far_behind = true;
        behind = false;
    }
    bool overflowed() const { return too_far_behind; }
    // Called when the client has listed a node or used a read-ahead.
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

    std::uint64_t fetched_to() const { return behind ? position : log.end(); }
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
    Fetch *fetching = nullptr;
    bool too_far_behind = false;
    std::optional<Time> listed; // the last time
    Wake wake;
};

// A fetch of everything that waits for a client when it begins, a part at a time. Meanwhile the log
// may change: an event that is replaced is left to the next fetch. The client's registrations must
// not change.
class Fetch {
public:
    // Nothing waits for the client afterwards. The log must not be merging events. May throw
    // std::bad_alloc, and then has no effect.
    Fetch(Session &client, Time now);
    ~Fetch();
    Fetch(const Fetch &) = delete;
    Fetch &operator=(const Fetch &) = delete;
    // Replaces `part` by the next events, in order; they are valid until the log changes. Takes
    // less than a millisecond. Returns false if there are no more.
    bool advance(std::vector<const Event *> &part);
    bool drain() const { return drains; } // see ReplyHeader
    // The log must keep the events after this position.
    std::uint64_t position() const { return done; }

private:
    void take_notices(std::uint64_t until, std::vector<const Event *> &part);
    bool find_first();

    Session &session;
    std::vector<Session::Notice> notices;
    std::size_t notices_taken = 0;
    std::uint64_t begin; // the position of the last event that had been fetched before
    std::uint64_t end;   // of the last event that this fetch takes
    std::uint64_t done;
    EventBatch::Events::const_iterator next;
    bool found = false; // `next` is the first event after `begin`
    bool drains;
};

} // namespace tav
