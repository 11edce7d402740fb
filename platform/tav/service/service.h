// The service without its sockets: sessions, and what each request does.
#ifndef TAV_SERVICE_SERVICE_H
#define TAV_SERVICE_SERVICE_H

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

    // A new client, which may read, and write if `writer`. The session lives until close().
    Session &open(const Credentials &peer, bool writer);
    // The session a ticket was made out for, or null.
    Session *find(const Ticket &ticket) const;
    // The client is gone; the session is destroyed.
    void close(std::uint64_t session);

    // Carries out one request and leaves the complete reply frame in `reply`. False when the
    // request is malformed: the client is then to be disconnected, and nothing was done. An empty
    // reply is none at all. Overridden to stage faults, not in what is installed.
    virtual bool handle(Session &session, std::string_view body, std::string &reply);

    const Sessions &sessions() const { return clients; }
    Watchdog &watchdog() { return dog; }
    Time now() const { return clock(); }
    // The limits' counts, for display: those of connections are the caller's to keep.
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

// The service that the program serves with. Its definition is linked apart from everything else, so
// that a test build can put another service in its place. Throws std::runtime_error.
std::unique_ptr<Service> make_service(Store &served, std::string database);

} // namespace tav

#endif
