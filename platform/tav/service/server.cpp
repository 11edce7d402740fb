#include "service/server.h"

#include <sys/epoll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

#include "client/short_wait.h"
#include "protocol/limits.h"
#include "service/log.h"

namespace tav {

namespace {

constexpr std::uint64_t listener_id = 0;
constexpr std::uint64_t signals_id = 1;

[[noreturn]] void fail(const char *what) {
    throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
}

} // namespace

Server::Server(Service &served, const Listener &listening, int signals, const Rights &granted)
    : service(served), listener(listening), signal_fd(signals), rights(granted),
      epoll(::epoll_create1(EPOLL_CLOEXEC)) {
    if (!epoll.valid()) {
        fail("epoll_create1");
    }
    watch(listener.fd(), listener_id, EPOLLIN, EPOLL_CTL_ADD);
    watch(signal_fd, signals_id, EPOLLIN, EPOLL_CTL_ADD);
}

void Server::watch(int fd, PeerId id, std::uint32_t events, int operation) {
    epoll_event event{};
    event.events = events;
    event.data.u64 = id;
    if (::epoll_ctl(epoll.get(), operation, fd, &event) != 0) {
        fail("epoll_ctl");
    }
}

// A client that was just served usually sends another request before this process could sleep.
int Server::wait_for(Events &events) {
    const auto size = static_cast<int>(events.size());
    if (served_lately && turns.empty()) {
        ShortWait wait;
        while (wait.goes_on()) {
            const int ready = ::epoll_wait(epoll.get(), events.data(), size, 0);
            if (ready != 0) {
                return ready;
            }
        }
    }
    served_lately = false;
    return ::epoll_wait(epoll.get(), events.data(), size, timeout());
}

void Server::run() {
    Events events{};
    for (;;) {
        const int ready = wait_for(events);
        if (ready < 0 && errno != EINTR) {
            fail("epoll_wait");
        }
        give_turns();
        for (int i = 0; i < ready; ++i) {
            const PeerId id = events.at(static_cast<std::size_t>(i)).data.u64;
            if (id == signals_id) {
                return;
            }
            if (id == listener_id) {
                accept_all();
            } else {
                give_turn(id, true);
            }
        }
        give_late_turns();
        if (accept_again && service.now() >= *accept_again) {
            accept_again.reset();
            watch(listener.fd(), listener_id, EPOLLIN, EPOLL_CTL_MOD);
        }
        end_slow_greetings();
        limit_held_bytes();
        service.watchdog().check(service.now());
        wake_clients();
    }
}

// One request of each client that has sent several. They were waiting already, so they come first.
void Server::give_turns() {
    for (std::size_t left = turns.size(); left > 0; --left) {
        const PeerId id = turns.front();
        turns.pop_front();
        give_turn(id, false);
    }
}

// `ready`: its socket is readable; otherwise it has more requests. A client that has used up its
// share comes last.
void Server::give_turn(PeerId id, bool ready) {
    const auto found = peers.find(id);
    if (found == peers.end() || (ready && found->second->waiting)) {
        return; // dropped earlier in this round, or already waiting for its turn
    }
    if (has_had_share(*found->second)) {
        late.push_back(Turn{id, ready});
        return;
    }
    served_others = serve_safely(id) || served_others;
    // After each client, not after all: a busy client must not delay another one's wake-up.
    wake_clients();
}

// Clients that have used up their share are served only if no other client had a request. They soon
// get a new share, so no client waits for long, and the service is never idle while a client waits.
void Server::give_late_turns() {
    for (const Turn &turn : late) {
        if (!served_others) {
            serve_safely(turn.id);
            wake_clients();
            continue;
        }
        service.usage().refuse(Limit::request_rate);
        if (!turn.ready) {
            turns.push_back(turn.id);
        }
    }
    late.clear();
    served_others = false;
}

bool Server::has_had_share(Peer &peer) const {
    return peer.role == Peer::Role::calls && !peer.has_output() && peer.rate.spent(service.now());
}

// A request of one client must not end the service for the others, for example if there is not
// enough memory for it. That client loses its connection.
bool Server::serve_safely(PeerId id) {
    try {
        return serve(id);
    } catch (const std::exception &error) {
        log_line("a request failed (%s), its client was disconnected", error.what());
        drop(id);
        return true;
    }
}

// True when there was a request.
bool Server::serve(PeerId id) {
    const auto found = peers.find(id);
    if (found == peers.end()) {
        return false; // dropped earlier in this round
    }
    Peer &peer = *found->second;
    peer.waiting = false;
    if (peer.has_output()) {
        if (!peer.flush()) {
            drop(id);
            return false;
        }
        if (peer.has_output()) {
            return false;
        }
        watch(peer.fd(), id, EPOLLIN, EPOLL_CTL_MOD);
    } else if (!peer.has_request() && !peer.receive()) {
        drop(id);
        return false;
    }
    return serve_request(id, peer, false);
}

// Carries out one request, if there is one. Further requests wait for the client's next turn,
// except one after a ping, which costs almost nothing.
bool Server::serve_request(PeerId id, Peer &peer, bool after_ping) {
    std::string_view body;
    const FrameState state = peer.request(body);
    // A first frame is short: do not keep more from a connection that has not identified itself.
    const bool endless = peer.role == Peer::Role::stranger && peer.held() > limits::greeting_bytes;
    if (state == FrameState::incomplete && !endless) {
        return false;
    }
    if (state == FrameState::too_large) {
        service.usage().refuse(Limit::frame_bytes);
    }
    if (endless || state != FrameState::complete || !handle(id, peer, body)) {
        dismiss(id, api_status_refused, "the client sent an invalid request");
        return true;
    }
    service.usage().raise(Limit::frame_bytes, body.size());
    const bool answered = peer.has_output();
    peer.consume(body);
    if (!peer.flush()) {
        drop(id);
        return true;
    }
    if (peer.has_output()) {
        // One reply at a time: no further request is read until this one has been sent.
        watch(peer.fd(), id, EPOLLOUT, EPOLL_CTL_MOD);
        limit_held_bytes();
    } else if (!answered && !after_ping) {
        serve_request(id, peer, true);
    } else if (peer.has_request()) {
        peer.waiting = true;
        turns.push_back(id);
    }
    return true;
}

bool Server::handle(PeerId id, Peer &peer, std::string_view body) {
    if (peer.role == Peer::Role::stranger) {
        return greet(id, peer, body);
    }
    if (peer.role != Peer::Role::calls || !peer.attached) {
        return false;
    }
    peer.rate.count();
    service.usage().raise(Limit::request_rate, peer.rate.per_second());
    std::string reply = peer.take_buffer();
    Session &session = *service.sessions().at(peer.session);
    if (!service.handle(session, body, reply)) {
        return false;
    }
    peer.reply(std::move(reply));
    served_lately = true;
    return true;
}

// Sends the wake-up bytes that are due, and ends clients with too many waiting events.
void Server::wake_clients() {
    const Time now = service.now();
    std::vector<std::uint64_t> broken;
    std::vector<std::uint64_t> overfull;
    for (const auto &[number, session] : service.sessions()) {
        if (session->overflowed()) {
            overfull.push_back(number);
            continue;
        }
        const std::optional<Time> due = session->wake_due();
        if (!due || *due > now) {
            continue;
        }
        // With at most one unread byte the connection cannot be full.
        if (peers.at(connections.at(number).wake)->send_byte(wake_byte)) {
            session->wake_sent();
        } else {
            broken.push_back(number);
        }
    }
    for (const std::uint64_t number : broken) {
        drop_session(number);
    }
    for (const std::uint64_t number : overfull) {
        service.count_overflow(*service.sessions().at(number));
        dismiss(connections.at(number).calls, api_status_refused,
                "the client did not fetch its events");
    }
}

std::optional<Time> Server::next_timer() const {
    std::optional<Time> next = service.watchdog().next_check();
    const auto consider = [&next](const std::optional<Time> &time) {
        if (time && (!next || *time < *next)) {
            next = time;
        }
    };
    consider(accept_again);
    if (!greeting.empty()) {
        // The queue contains all accepted connections, so the first one may have been closed long
        // ago: then the service wakes up once for nothing.
        const auto oldest = peers.find(greeting.front());
        consider(oldest != peers.end() ? oldest->second->accepted + greeting_time : service.now());
    }
    for (const auto &[number, session] : service.sessions()) {
        consider(session->wake_due());
    }
    return next;
}

// Rounded up, so that the loop does not spin through the last millisecond.
int Server::timeout() const {
    if (!turns.empty()) {
        return 0;
    }
    const std::optional<Time> next = next_timer();
    if (!next) {
        return -1;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*next - service.now()).count();
    return static_cast<int>(std::clamp<long long>(left, 0, 3600000));
}

} // namespace tav
