// The service's event loop: connections, frames, wake-up bytes and timers, on one thread.
//
// Requests are carried out in parts. After each the schedule says whose turn it is.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "client/unique_fd.h"
#include "service/access.h"
#include "service/listener.h"
#include "service/peer.h"
#include "service/schedule.h"
#include "service/service.h"

namespace tav {

class Server {
public:
    // Serves `service` at `listener` to the users that `granted` allows, until a signal arrives on
    // `signals` (a signalfd). All three must outlive the server. Throws std::runtime_error when the
    // loop cannot be set up.
    Server(Service &served, const Listener &listening, int signals, const Rights &granted);

    ~Server();
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    // Returns when a signal has arrived. Throws std::runtime_error when waiting fails.
    void run();

private:
    // Peers have numbers that are never reused: a descriptor may be closed and reused within one
    // round of events.
    using PeerId = std::uint64_t;
    static constexpr PeerId listener_id = 0;
    static constexpr PeerId signals_id = 1;
    static constexpr PeerId commit_id = 2;
    static constexpr PeerId first_peer = 3;
    struct Connections {
        PeerId calls = 0;
        PeerId wake = 0;
    };
    struct User {
        std::size_t connections = 0;
        std::size_t held = 0; // bytes of received requests and unsent replies
    };

    // server.cpp: the loop and the requests.
    void watch(int fd, PeerId id, std::uint32_t events, int operation) const;
    void watch(PeerId id, Peer &peer, std::uint32_t events) const;
    bool receive(int most);
    void arrived(PeerId id);
    bool work();
    void serve_next();
    PeerId next_peer();
    void serve(PeerId id, Peer &peer, Time start);
    enum class Turn { next, over, gone };
    Turn begin(PeerId id, Peer &peer);
    Turn go_on(PeerId id, Peer &peer);
    Turn answer(PeerId id, Peer &peer, const Session &session, std::string frame);
    Turn send(PeerId id, Peer &peer, std::string frame);
    void watch_commit();
    void release_blocked();
    void notify(std::uint64_t session, std::uint32_t serial) noexcept;
    void look_after(const Session &session);
    void look_after_all();
    std::optional<Time> next_timer() const;
    int timeout() const;

    // connections.cpp: how connections begin and end.
    void accept_all();
    void admit(UniqueFd fd);
    const char *why_full(const Credentials &who);
    bool greet(PeerId id, Peer &peer, std::string_view body);
    bool attach(PeerId id, Peer &peer, const Ticket &ticket);
    void end_slow_greetings();
    void end_slow_readers();
    void account(Peer &peer);
    void limit_held_bytes();
    void limit_kept_bytes();
    void dismiss(PeerId id, api_status_t status, const char *reason);
    void drop(PeerId id);
    void drop_session(std::uint64_t session);
    void erase(PeerId id);

    Service &service;
    const Listener &listener;
    int signal_fd;
    Rights rights;
    UniqueFd epoll;
    std::map<PeerId, std::unique_ptr<Peer>> peers;
    std::map<std::uint64_t, Connections> connections;
    std::map<uid_t, User> users;
    std::size_t held = 0;             // by all users
    std::uint64_t kept_looked_at = 0; // Tree::replaced() at the last limit_kept_bytes()
    PeerId next_id = first_peer;
    std::optional<Time> accept_again;

    Schedule schedule;              // connections with a request that can go on
    bool transaction_next = false;  // the last turn was that of the transaction at work
    std::set<PeerId> blocked;       // with one that waits for another client or for a commit
    std::uint64_t released = 0;     // see Service::releases()
    std::uint64_t looked_after = 0; // see Service::publications()
    std::set<PeerId> unsent;        // with an answer that could not be sent at once
    std::deque<PeerId> greeting;    // oldest first; some may be established or closed
    std::optional<Time> next_wake;  // not later than the next wake-up byte is due
    bool commit_watched = false;
    std::optional<Time> trim; // when to give memory back to the system
};

} // namespace tav
