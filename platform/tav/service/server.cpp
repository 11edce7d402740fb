#include "service/server.h"

#include <sys/epoll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

#include "protocol/limits.h"
#include "service/log.h"

namespace tav {

namespace {

constexpr std::uint64_t listener_id = 0;
constexpr std::uint64_t signals_id = 1;
// How long after its last request a client counts as one that is served.
constexpr std::chrono::seconds lately{1};

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

void Server::run() {
    std::array<epoll_event, 64> events{};
    for (;;) {
        const int ready =
            ::epoll_wait(epoll.get(), events.data(), static_cast<int>(events.size()), timeout());
        if (ready < 0 && errno != EINTR) {
            fail("epoll_wait");
        }
        // Those that were waiting already come first.
        give_turns();
        for (int i = 0; i < ready; ++i) {
            const PeerId id = events.at(static_cast<std::size_t>(i)).data.u64;
            if (id == signals_id) {
                return;
            }
            if (id == listener_id) {
                accept_all();
            } else {
                serve_safely(id, true);
            }
            // After each, not after all: a busy neighbour must not delay a wake-up.
            wake_clients();
        }
        if (accept_again && service.now() >= *accept_again) {
            accept_again.reset();
            watch(listener.fd(), listener_id, EPOLLIN, EPOLL_CTL_MOD);
        }
        end_throttles();
        end_slow_greetings();
        limit_held_bytes();
        service.watchdog().check(service.now());
        wake_clients();
    }
}

// What one client asks for must not end the service for the others: there may be no memory for a
// huge request, say. Whoever asked loses the connection.
void Server::serve_safely(PeerId id, bool ready) {
    try {
        serve(id, ready);
    } catch (const std::exception &error) {
        log_line("a request failed (%s), its client was disconnected", error.what());
        drop(id);
    }
}

// `ready`: its socket is; otherwise it is the client's turn.
void Server::serve(PeerId id, bool ready) {
    const auto found = peers.find(id);
    if (found == peers.end()) {
        return; // dropped earlier in this round
    }
    Peer &peer = *found->second;
    if (peer.waiting && ready) {
        if (throttled.count(id) > 0) {
            drop(id); // all that is reported while it is not read from: the other side is gone
        }
        return;
    }
    peer.waiting = false;
    if (peer.has_output()) {
        if (!peer.flush()) {
            drop(id);
            return;
        }
        if (peer.has_output()) {
            return;
        }
        watch(peer.fd(), id, EPOLLIN, EPOLL_CTL_MOD);
    } else if (!peer.has_request() && !peer.receive()) {
        drop(id);
        return;
    }
    serve_request(id, peer);
}

// Carries out one request, if there is one. What else has arrived has its turn later.
void Server::serve_request(PeerId id, Peer &peer) {
    std::string_view body;
    const FrameState state = peer.request(body);
    // A first frame is short. More from somebody who is not known is not worth keeping.
    const bool endless = peer.role == Peer::Role::stranger && peer.held() > limits::greeting_bytes;
    if (state == FrameState::incomplete && !endless) {
        return;
    }
    if (state == FrameState::complete && is_throttled(id, peer)) {
        return;
    }
    if (state == FrameState::too_large) {
        service.usage().refuse(Limit::frame_bytes);
    }
    if (endless || state != FrameState::complete || !handle(id, peer, body)) {
        dismiss(id, api_status_refused, "what the client sent is no request");
        return;
    }
    service.usage().raise(Limit::frame_bytes, body.size());
    peer.consume(body);
    if (!peer.flush()) {
        drop(id);
        return;
    }
    if (peer.has_output()) {
        // One reply at a time: until this one is out, no further request is read.
        watch(peer.fd(), id, EPOLLOUT, EPOLL_CTL_MOD);
        limit_held_bytes();
    } else if (peer.has_request()) {
        peer.waiting = true;
        turns.push_back(id);
    }
}

bool Server::others_served(std::uint64_t session, Time now) const {
    return now - (session == last_served ? other_time : last_time) < lately;
}

// Leaves a client alone that has had its share, as long as there are others. It is not read from
// then, so that it will have to wait itself.
bool Server::is_throttled(PeerId id, Peer &peer) {
    const Time now = service.now();
    if (peer.role != Peer::Role::calls) {
        return false;
    }
    if (!peer.rate.spent(now) || !others_served(peer.session, now)) {
        return false;
    }
    service.usage().refuse(Limit::request_rate);
    peer.waiting = true;
    throttled[id] = peer.rate.renewal();
    watch(peer.fd(), id, 0, EPOLL_CTL_MOD);
    return true;
}

void Server::note_served(Peer &peer) {
    peer.rate.count();
    service.usage().raise(Limit::request_rate, peer.rate.per_second());
    if (peer.session != last_served) {
        other_time = last_time;
        last_served = peer.session;
    }
    last_time = service.now();
}

bool Server::handle(PeerId id, Peer &peer, std::string_view body) {
    if (peer.role == Peer::Role::stranger) {
        return greet(id, peer, body);
    }
    if (peer.role != Peer::Role::calls || !peer.attached) {
        return false;
    }
    note_served(peer);
    std::string reply = peer.take_buffer();
    Session &session = *service.sessions().at(peer.session);
    if (!service.handle(session, body, reply)) {
        return false;
    }
    peer.reply(std::move(reply));
    return true;
}

// One request of each client that has sent ahead.
void Server::give_turns() {
    for (std::size_t left = turns.size(); left > 0; --left) {
        const PeerId id = turns.front();
        turns.pop_front();
        serve_safely(id, false);
        wake_clients();
    }
}

void Server::end_throttles() {
    const Time now = service.now();
    for (auto entry = throttled.begin(); entry != throttled.end();) {
        if (entry->second > now) {
            ++entry;
            continue;
        }
        const auto found = peers.find(entry->first);
        if (found != peers.end()) {
            watch(found->second->fd(), entry->first, EPOLLIN, EPOLL_CTL_MOD);
            turns.push_back(entry->first);
        }
        entry = throttled.erase(entry);
    }
}

// Sends the wake-up bytes that are due and ends the clients that let too many events wait.
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
        // With at most one byte under way the connection cannot be full.
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
        // All that were accepted are in this queue, so that the first one may be long gone: then
        // the service only wakes up once for nothing.
        const auto oldest = peers.find(greeting.front());
        consider(oldest != peers.end() ? oldest->second->accepted + greeting_time : service.now());
    }
    for (const auto &[id, until] : throttled) {
        consider(until);
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
