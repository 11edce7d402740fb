// The service's event loop: connections, frames, wake-up bytes and timers, on one thread.
#ifndef TAV_SERVICE_SERVER_H
#define TAV_SERVICE_SERVER_H

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "client/unique_fd.h"
#include "service/listener.h"
#include "service/peer.h"
#include "service/service.h"

namespace tav {

class Server {
public:
    // Serves `service` at `listener` until one of the signals arrives that `signals` (a signalfd)
    // is made for. All three must outlive the server. Throws std::runtime_error when the loop
    // cannot be set up.
    Server(Service &served, const Listener &listening, int signals);

    // Returns when a signal asked for the end. Throws std::runtime_error when waiting fails.
    void run();

private:
    // Peers go by numbers that are never used again: a descriptor may be closed and given out anew
    // within one round of events.
    using PeerId = std::uint64_t;
    struct Connections {
        PeerId calls = 0;
        PeerId wake = 0;
    };

    void accept_all();
    void watch(int fd, PeerId id, std::uint32_t events, int operation);
    void serve_safely(PeerId id);
    void serve(PeerId id);
    void serve_requests(PeerId id, Peer &peer);
    bool handle(PeerId id, Peer &peer, std::string_view body);
    bool greet(PeerId id, Peer &peer, std::string_view body);
    void drop(PeerId id);
    void drop_session(std::uint64_t session);
    void wake_clients();
    std::optional<Time> next_timer() const;
    int timeout() const;

    Service &service;
    const Listener &listener;
    int signal_fd;
    UniqueFd epoll;
    std::map<PeerId, std::unique_ptr<Peer>> peers;
    std::map<std::uint64_t, Connections> connections;
    PeerId next_peer = 2; // 0 and 1 stand for the listener and the signals
    std::optional<Time> accept_again;
};

} // namespace tav

#endif
