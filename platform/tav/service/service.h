// The service without its sockets: sessions, and the execution of requests.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "service/committer.h"
#include "service/holders.h"
#include "service/reversal.h"
#include "service/session.h"
#include "service/store.h"
#include "service/task.h"
#include "service/usage.h"
#include "service/watchdog.h"

namespace tav {

class Service {
public:
    using Sessions = std::map<SessionId, std::unique_ptr<Session>>;
    // The clock's times must never go back.
    using Clock = std::function<Time()>;

    // Serves `store`, which must outlive the service; `database` is its file's name for display.
    Service(Store &served, std::string database, Clock time_source);
    Service(const Service &) = delete;
    Service &operator=(const Service &) = delete;
    virtual ~Service() { served.before_reveal = nullptr; }

    // Adds a client, which may read, and may write if `writer`. The session lives until close().
    Session &open(const Credentials &peer, bool writer);
    // The session of a ticket, or null.
    Session *find(const Ticket &ticket) const;
    // The client is gone; the session is destroyed. Its tasks must have been destroyed.
    void close(SessionId session);

    // How a request began. `answered`: `reply` is the complete reply frame, or empty if there is
    // none. `started`: `task` does the rest; when it is done, call completed() if it is work.
    enum class Begun { answered, started, malformed };
    // Begins a request of the session. A malformed one has changed nothing, and the caller must
    // disconnect the client. `body` must remain until the task is destroyed. Virtual so that tests
    // can inject faults.
    virtual Begun begin(Session &session, std::string_view body, std::string &reply,
                        std::unique_ptr<Task> &task);
    void completed(Session &session) { session.request(clock()); }
    // Carries out a request at once, commits what it writes, and leaves the reply in `reply`. False
    // if it is malformed. Not while the service is busy().
    bool handle(Session &session, std::string_view body, std::string &reply);
    // The same for a transaction of none of the clients, which no event makes stale.
    void write(const std::vector<Item> &items);

    // Commits the completed transactions, unless others are being committed. If that may take long,
    // it goes on until committing() is readable; the next ones are carried out meanwhile.
    void commit();
    int committing() const { return committer.fd(); }
    // Continues the terms of changes of an earlier service, and reverts what is due. Before the
    // first request. `wall_clock`: see wall_clock().
    void resume(std::int64_t wall_clock);
    // Reverts the changes that were not confirmed in time, or does a part of that, if transactions
    // may begin now; call commit() then.
    void revert();
    // When to call that again; empty if nothing waits, or a commit comes first.
    std::optional<Time> next_end() const;
    void commit_ended();
    // Increases when tasks that were blocked may go on.
    std::uint64_t releases() const { return released; }
    // Does a part of what remains to be done for the events: merges them, forgets those that all
    // clients have fetched, and gives up clients that keep too many.
    void trim_events();
    // There is more to do.
    bool trims() const { return trimming; }
    // Increases when clients may have to be woken or ended.
    std::uint64_t publications() const { return published; }
    // Called before a commit that does not take long: clients may have to be woken. A reader on
    // another processor needs about as long to wake as the commit takes, and what it asks then is
    // answered afterwards.
    std::function<void()> before_commit;

    // For tasks. One transaction is carried out at a time; take_turn() is false when the task must
    // wait. Each call that was true is followed by carry_out() and end_turn().
    bool take_turn(SessionId session);
    void carry_out(Transaction &transaction) { carried_out = &transaction; }
    void end_turn();
    // The transaction that is being carried out, if a short one may precede it. Otherwise null.
    Transaction *may_precede() const;
    // Announces or withdraws (-1) a task that waits for a turn.
    void writers(int change, bool is_short) {
        waiting_writers += change;
        waiting_short += is_short ? change : 0;
    }
    bool short_ones_wait() const { return waiting_short > 0; }
    // Writers, or tasks that wait to register.
    bool others_wait() const { return waiting_writers > 0 || registrations > 0; }
    // Announces or withdraws (-1) a task that waits for between_groups(). While there is one, no
    // transaction begins.
    void registering(int change);
    // The session whose transaction is being carried out; 0: none.
    SessionId at_work() const { return writing; }
    bool busy() const { return writing != 0 || reversal; }
    bool between_groups() const { return !busy() && !store().has_group() && !store().committing(); }
    // Whether a call may have this many paths; the library checks this, too.
    bool fits(std::size_t paths);
    // Whether the author of the change may have one more unconfirmed change.
    bool fits(const Pending &pending);
    // Who the session's client is, for the history.
    Author author(const Session &session) const;
    // All but the clients.
    ServiceStatus status();

    const Store &store() const { return served; }
    Store &store() { return served; }
    const Sessions &sessions() const { return clients; }
    // The clients that may answer from a read-ahead.
    Holders &holders() { return ahead; }
    Watchdog &watchdog() { return dog; }
    Time now() const { return clock(); }
    // The use of the limits, for display; the caller updates that of connections.
    Usage &usage() { return limits_used; }
    // A client was disconnected because it did not fetch its events; counted for display.
    void count_overflow();

private:
    bool may_begin() const { return !busy() && registrations == 0 && !served.group_is_full(); }
    PendingPtr first_due() const;
    void revert(const PendingPtr &pending);
    void end_reversal();
    void group_ended(bool announced = false);
    // Whether there is so much to do for the events that the next group must wait.
    bool lags() const;
    bool trim();

    Store &served;
    std::string database_name;
    Clock clock;
    Time started;
    Sessions clients;
    Holders ahead;
    Watchdog dog;
    Committer committer;
    SessionId next_session = 1;
    std::uint64_t overflows = 0;
    std::uint64_t released = 0;
    std::uint64_t published = 0;
    bool trimming = false; // see trims()
    int waiting_writers = 0;
    int waiting_short = 0;              // of these
    int registrations = 0;              // tasks that wait to register
    SessionId writing = 0;              // see at_work()
    Transaction *carried_out = nullptr; // its transaction
    bool ends_wait = false;             // changes are due that are not reverted yet
    std::optional<Reversal> reversal;   // at work
    Usage limits_used;
};

// Creates the service of the program. The definition is in a file of its own, so that a test build
// can replace it. Throws std::runtime_error.
std::unique_ptr<Service> make_service(Store &served, std::string database);

} // namespace tav
