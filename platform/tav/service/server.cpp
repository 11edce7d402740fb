#include "service/server.h"

#include <sys/epoll.h>
#include <sys/socket.h>

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
// How long to leave waiting connections alone when there are no descriptors left.
constexpr std::chrono::milliseconds accept_pause{100};

[[noreturn]] void fail(const char *what) {
    throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
}

ucred credentials(int fd) {
    ucred peer{};
    socklen_t length = sizeof peer;
    ::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length);
    return peer;
}

} // namespace

Server::Server(Service &served, const Listener &listening, int signals)
    : service(served), listener(listening), signal_fd(signals),
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
        for (int i = 0; i < ready; ++i) {
            const PeerId id = events.at(static_cast<std::size_t>(i)).data.u64;
            if (id == signals_id) {
                return;
            }
            if (id == listener_id) {
                accept_all();
            } else {
                serve_safely(id);
            }
            // After each, not after all: a busy neighbour must not delay a wake-up.
            wake_clients();
        }
        if (accept_again && service.now() >= *accept_again) {
            accept_again.reset();
            watch(listener.fd(), listener_id, EPOLLIN, EPOLL_CTL_MOD);
        }
        service.watchdog().check(service.now());
        wake_clients();
    }
}

void Server::accept_all() {
    constexpr int at_once = 32;
    for (int i = 0; i < at_once; ++i) {
        UniqueFd fd(::accept4(listener.fd(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!fd.valid()) {
            if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS) {
                // The connection stays in the backlog, so the listener would be reported at once
                // again and again.
                log_line("cannot accept a connection: %s", std::strerror(errno));
                accept_again = service.now() + accept_pause;
                watch(listener.fd(), listener_id, 0, EPOLL_CTL_MOD);
            }
            return;
        }
        if (peers.size() >= limits::connections) {
            log_line("too many connections, one was closed");
            continue;
        }
        const PeerId id = next_peer++;
        const Peer &peer = *(peers[id] = std::make_unique<Peer>(std::move(fd)));
        try {
            watch(peer.fd(), id, EPOLLIN, EPOLL_CTL_ADD);
        } catch (const std::runtime_error &error) {
            log_line("cannot serve a connection: %s", error.what());
            drop(id);
        }
    }
}

// What one client asks for must not end the service for the others: there may be no memory for a
// huge request, say. Whoever asked loses the connection.
void Server::serve_safely(PeerId id) {
    try {
        serve(id);
    } catch (const std::exception &error) {
        log_line("a request failed (%s), its client was disconnected", error.what());
        drop(id);
    }
}

void Server::serve(PeerId id) {
    const auto found = peers.find(id);
    if (found == peers.end()) {
        return; // dropped earlier in this round
    }
    Peer &peer = *found->second;
    if (peer.has_output()) {
        if (!peer.flush()) {
            drop(id);
            return;
        }
        if (peer.has_output()) {
            return;
        }
        watch(peer.fd(), id, EPOLLIN, EPOLL_CTL_MOD);
    } else if (!peer.receive()) {
        drop(id);
        return;
    }
    serve_requests(id, peer);
}

// Carries out what has arrived, for as long as the replies go out.
void Server::serve_requests(PeerId id, Peer &peer) {
    while (!peer.has_output()) {
        std::string_view body;
        const FrameState state = peer.request(body);
        if (state == FrameState::incomplete) {
            return;
        }
        const bool fine = state == FrameState::complete && handle(id, peer, body);
        if (!fine) {
            log_line("a client (session %llu) sent what is no request and was disconnected",
                     static_cast<unsigned long long>(peer.session));
            drop(id);
            return;
        }
        peer.consume(body);
        if (!peer.flush()) {
            drop(id);
            return;
        }
    }
    // One reply at a time: until this one is out, no further request is read.
    watch(peer.fd(), id, EPOLLOUT, EPOLL_CTL_MOD);
}

bool Server::handle(PeerId id, Peer &peer, std::string_view body) {
    if (peer.role == Peer::Role::stranger) {
        return greet(id, peer, body);
    }
    if (peer.role != Peer::Role::calls || !peer.attached) {
        return false;
    }
    std::string reply;
    Session &session = *service.sessions().at(peer.session);
    if (!service.handle(session, body, reply)) {
        return false;
    }
    peer.reply(std::move(reply));
    return true;
}

// A connection's first frame says which of a client's two connections it is.
bool Server::greet(PeerId id, Peer &peer, std::string_view body) {
    Reader in(body);
    RequestHeader header;
    Hello hello;
    get(in, header);
    get(in, hello);
    if (!in.ok() || hello.magic != magic || hello.version != protocol_version) {
        return false;
    }
    Writer out;
    put(out, ReplyHeader{header.serial, false});
    if (header.op == Op::hello && in.finished()) {
        const ucred who = credentials(peer.fd());
        const Session &session = service.open(static_cast<std::uint32_t>(who.pid), who.uid);
        peer.role = Peer::Role::calls;
        peer.session = session.ticket().session;
        connections[peer.session].calls = id;
        put(out, session.ticket());
    } else if (header.op == Op::attach) {
        Ticket ticket;
        get(in, ticket);
        const Session *session = in.finished() ? service.find(ticket) : nullptr;
        if (session == nullptr || connections[ticket.session].wake != 0) {
            return false;
        }
        peer.role = Peer::Role::wake;
        peer.session = ticket.session;
        connections[ticket.session].wake = id;
        peers.at(connections[ticket.session].calls)->attached = true;
    } else {
        return false;
    }
    peer.reply(out.finish());
    return true;
}

void Server::drop(PeerId id) {
    const auto found = peers.find(id);
    if (found == peers.end()) {
        return;
    }
    const std::uint64_t session = found->second->session;
    peers.erase(found); // closing takes it out of epoll, too
    if (session != 0) {
        drop_session(session);
    }
}

// A client's two connections live and die together.
void Server::drop_session(std::uint64_t session) {
    const auto found = connections.find(session);
    if (found == connections.end()) {
        return;
    }
    const Connections both = found->second;
    connections.erase(found);
    peers.erase(both.calls);
    peers.erase(both.wake);
    service.close(session);
}

// Sends the wake-up bytes that are due and ends the clients that let too many events wait.
void Server::wake_clients() {
    const Time now = service.now();
    std::vector<std::uint64_t> broken;
    for (const auto &[number, session] : service.sessions()) {
        if (session->overflowed()) {
            log_line("session %llu (process %u) does not fetch its events and was disconnected",
                     static_cast<unsigned long long>(number), session->pid());
            service.count_overflow();
            broken.push_back(number);
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
}

std::optional<Time> Server::next_timer() const {
    std::optional<Time> next = service.watchdog().next_check();
    const auto consider = [&next](const std::optional<Time> &time) {
        if (time && (!next || *time < *next)) {
            next = time;
        }
    };
    consider(accept_again);
    for (const auto &[number, session] : service.sessions()) {
        consider(session->wake_due());
    }
    return next;
}

// Rounded up, so that the loop does not spin through the last millisecond.
int Server::timeout() const {
    const std::optional<Time> next = next_timer();
    if (!next) {
        return -1;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*next - service.now()).count();
    return static_cast<int>(std::clamp<long long>(left, 0, 3600000));
}

} // namespace tav
