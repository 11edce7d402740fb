// The service's event loop: connections, frames, wake-up bytes and timers, on one thread.
//
// Clients are served in turn, one request each, no matter how many requests one of them has sent. A
// client that has made more requests than its share comes after all others.
#pragma once

#include <sys/epoll.h>

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "client/unique_fd.h"
#include "service/access.h"
#include "service/listener.h"
#include "service/peer.h"
#include "service/service.h"

namespace tav {

class Server {
public:
    // Serves `service` at `listener` to the users that `granted` allows, until a signal arrives on
    // `signals` (a signalfd). All three must outlive the server. Throws std::runtime_error when the
    // loop cannot be set up.
    Server(Service &served, const Listener &listening, int signals, const Rights &granted);

    // Returns when a signal has arrived. Throws std::runtime_error when waiting fails.
    void run();

private:
    // Peers have numbers that are never reused: a descriptor may be closed and reused within one
    // round of events.
    using PeerId = std::uint64_t;
    struct Connections {
        PeerId calls = 0;
        PeerId wake = 0;
    };
    struct Turn {
        PeerId id = 0;
        bool ready = false; // its socket is readable; otherwise it has more requests
    };

    using Events = std::array<epoll_event, 64>;

    // server.cpp: the loop and the requests.
    int wait_for(Events &events);
    void watch(int fd, PeerId id, std::uint32_t events, int operation);
    void give_turns();
    void give_turn(PeerId id, bool ready);
    void give_late_turns();
    bool has_had_share(Peer &peer) const;
    bool serve_safely(PeerId id);
    bool serve(PeerId id);
    bool serve_request(PeerId id, Peer &peer, bool after_ping);
    bool handle(PeerId id, Peer &peer, std::string_view body);
    void wake_clients();
    std::optional<Time> next_timer() const;
    int timeout() const;

    // connections.cpp: how connections begin and end.
    void accept_all();
    void admit(UniqueFd fd);
    const char *why_full(const Credentials &who);
    bool greet(PeerId id, Peer &peer, std::string_view body);
    bool attach(PeerId id, Peer &peer, const Ticket &ticket);
    void end_slow_greetings();
    void limit_held_bytes();
    void dismiss(PeerId id, api_status_t status, const char *reason);
    void drop(PeerId id);
    void drop_session(std::uint64_t session);
    void erase(PeerId id);

    Service &service;
    const Listener &listener;
    int signal_fd;
    Rights rights;
    UniqueFd epoll;
    bool served_lately = false; // a request came since the last sleep
    std::map<PeerId, std::unique_ptr<Peer>> peers;
    std::map<std::uint64_t, Connections> connections;
    std::map<uid_t, std::size_t> user_connections;
    PeerId next_peer = 2; // 0 and 1 are the listener and the signals
    std::optional<Time> accept_again;

    std::deque<PeerId> turns;    // have a complete request already
    std::deque<PeerId> greeting; // oldest first; some may be established or closed

    // For one round of the loop: clients that have used up their share, and whether others were
    // served.
    std::vector<Turn> late;
    bool served_others = false;
};

} // namespace tav
