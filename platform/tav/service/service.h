// The service without its sockets: sessions, and the execution of requests.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "service/session.h"
#include "service/store.h"
#include "service/usage.h"
#include "service/watchdog.h"

namespace tav {

class Service {
public:
    using Sessions = std::map<std::uint64_t, std::unique_ptr<Session>>;
    // The clock's times must never go back.
    using Clock = std::function<Time()>;

    // Serves `store`, which must outlive the service; `database` is its file's name for display.
    Service(Store &served, std::string database, Clock time_source);
    Service(const Service &) = delete;
    Service &operator=(const Service &) = delete;
    virtual ~Service() = default;

    // Adds a client, which may read, and may write if `writer`. The session lives until close().
    Session &open(const Credentials &peer, bool writer);
    // The session of a ticket, or null.
    Session *find(const Ticket &ticket) const;
    // The client is gone; the session is destroyed.
    void close(std::uint64_t session);

    // Carries out one request and leaves the complete reply frame in `reply`. False if the request
    // is malformed: nothing was done, and the caller must disconnect the client. An empty reply
    // means that there is no reply. Virtual so that tests can inject faults.
    virtual bool handle(Session &session, std::string_view body, std::string &reply);

    const Sessions &sessions() const { return clients; }
    Watchdog &watchdog() { return dog; }
    Time now() const { return clock(); }
    // The use of the limits, for display; the caller updates that of connections.
    Usage &usage() { return limits_used; }
    // A client was disconnected because it did not fetch its events; counted for display.
    void count_overflow(const Session &session);

private:
    bool fits(std::size_t paths);
    bool handle_read(Reader &in, Writer &out);
    void answer(Writer &out, api_status_t status);
    bool handle_list(Reader &in, Writer &out);
    bool handle_transact(Session &session, Reader &in, Writer &out);
    bool handle_register(Session &session, Reader &in, Writer &out);
    bool handle_watchdog(Session &session, Reader &in, Writer &out);
    bool handle_dump(Reader &in, Writer &out);
    void put_status(Writer &out);
    void note_usage();
    bool dispatch(Session &session, Op op, Reader &in, Writer &out);

    Store &store;
    std::string database_name;
    Clock clock;
    Time started;
    Sessions clients;
    Watchdog dog;
    std::uint64_t next_session = 1;
    std::uint64_t overflows = 0;
    Usage limits_used;
};

// Creates the service of the program. The definition is in a file of its own, so that a test build
// can replace it. Throws std::runtime_error.
std::unique_ptr<Service> make_service(Store &served, std::string database);

} // namespace tav
