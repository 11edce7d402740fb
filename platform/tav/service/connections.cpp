// How the server's connections begin and end.
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "protocol/limits.h"
#include "service/log.h"
#include "service/server.h"

namespace tav {

namespace {

constexpr std::uint64_t listener_id = 0;
// How long to wait before accepting again when there are no descriptors left.
constexpr std::chrono::milliseconds accept_pause{100};

// The last frame of a connection. One that cannot be sent at once is not sent at all.
void say_farewell(int fd, api_status_t status, const char *reason) {
    Writer out;
    put(out, ReplyHeader{farewell_serial, false});
    put(out, Farewell{status, reason});
    const std::string frame = out.finish();
    ::send(fd, frame.data(), frame.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

} // namespace

void Server::accept_all() {
    constexpr int at_once = 32;
    for (int i = 0; i < at_once; ++i) {
        UniqueFd fd(::accept4(listener.fd(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!fd.valid()) {
            if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS) {
                // The connection stays in the backlog, so the listener would be reported again
                // immediately.
                log_line("cannot accept a connection: %s", std::strerror(errno));
                accept_again = service.now() + accept_pause;
                watch(listener.fd(), listener_id, 0, EPOLL_CTL_MOD);
            }
            return;
        }
        try {
            admit(std::move(fd));
        } catch (const std::exception &error) {
            log_line("cannot serve a connection: %s", error.what());
        }
    }
}

// Null when there is room for one more connection of this user.
const char *Server::why_full(const Credentials &who) {
    const std::size_t most =
        rights.owns(who.uid) ? limits::connections : limits::connections - limits::connections_kept;
    if (peers.size() >= most) {
        service.usage().refuse(Limit::connections);
        return "the service has reached its limit of connections";
    }
    const auto own = user_connections.find(who.uid);
    if (own != user_connections.end() && own->second >= limits::connections_per_user) {
        service.usage().refuse(Limit::user_connections);
        return "this user has reached the limit of connections per user";
    }
    return nullptr;
}

void Server::admit(UniqueFd fd) {
    const Credentials who = credentials_of(fd.get());
    const Access access = rights.of(who);
    if (access == Access::none) {
        log_line("process %d of user %u may not connect", who.pid, who.uid);
        say_farewell(fd.get(), api_status_denied, "this user may not use the store");
        return;
    }
    const char *const full = why_full(who);
    if (full != nullptr) {
        log_line("process %d of user %u was refused a connection: %s", who.pid, who.uid, full);
        say_farewell(fd.get(), api_status_too_many_connections, full);
        return;
    }
    auto peer = std::make_unique<Peer>(std::move(fd), who, access == Access::write, service.now());
    watch(peer->fd(), next_peer, EPOLLIN, EPOLL_CTL_ADD);
    greeting.push_back(next_peer);
    peers[next_peer] = std::move(peer);
    ++next_peer;
    service.usage().set(Limit::connections, peers.size());
    service.usage().raise(Limit::user_connections, ++user_connections[who.uid]);
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
        const Session &session = service.open(peer.who, peer.may_write);
        peer.role = Peer::Role::calls;
        peer.session = session.ticket().session;
        connections[peer.session].calls = id;
        put(out, session.ticket());
    } else if (header.op == Op::attach) {
        Ticket ticket;
        get(in, ticket);
        if (!in.finished() || !attach(id, peer, ticket)) {
            return false;
        }
    } else {
        return false;
    }
    peer.reply(out.finish());
    return true;
}

bool Server::attach(PeerId id, Peer &peer, const Ticket &ticket) {
    if (service.find(ticket) == nullptr || connections[ticket.session].wake != 0) {
        return false;
    }
    peer.role = Peer::Role::wake;
    peer.session = ticket.session;
    connections[ticket.session].wake = id;
    Peer &calls = *peers.at(connections[ticket.session].calls);
    calls.attached = true;
    const auto taken = service.now() - calls.accepted;
    service.usage().raise(
        Limit::greeting,
        static_cast<std::uint64_t>(std::chrono::ceil<std::chrono::milliseconds>(taken).count()));
    return true;
}

void Server::end_slow_greetings() {
    while (!greeting.empty()) {
        const auto oldest = peers.find(greeting.front());
        const bool settled = oldest == peers.end() || oldest->second->established();
        if (!settled && oldest->second->accepted + greeting_time > service.now()) {
            return;
        }
        greeting.pop_front();
        if (!settled) {
            service.usage().refuse(Limit::greeting);
            dismiss(oldest->first, api_status_refused, "the client did not connect in time");
        }
    }
}

// Ends one client if all clients together use too much memory.
void Server::limit_held_bytes() {
    struct Share {
        std::size_t bytes = 0;   // of all of the user's clients
        std::size_t largest = 0; // of one of them
        PeerId client = 0;
    };
    std::size_t total = 0;
    std::map<uid_t, Share> shares;
    for (const auto &[id, peer] : peers) {
        std::size_t held = peer->held();
        if (peer->role == Peer::Role::calls) {
            held += service.sessions().at(peer->session)->pending_bytes();
        }
        if (held == 0) {
            continue;
        }
        Share &share = shares[peer->who.uid];
        total += held;
        share.bytes += held;
        if (held > share.largest) {
            share.largest = held;
            share.client = id;
        }
    }
    service.usage().raise(Limit::held_bytes, total);
    if (total <= limits::held_bytes) {
        return;
    }
    const auto most =
        std::max_element(shares.begin(), shares.end(), [](const auto &left, const auto &right) {
            return left.second.bytes < right.second.bytes;
        });
    service.usage().refuse(Limit::held_bytes);
    dismiss(most->second.client, api_status_refused, "too much data was waiting for this client");
}

// Ends a connection, and sends the client the reason if possible.
void Server::dismiss(PeerId id, api_status_t status, const char *reason) {
    const auto found = peers.find(id);
    if (found == peers.end()) {
        return;
    }
    Peer &peer = *found->second;
    log_line("process %d of user %u was disconnected: %s", peer.who.pid, peer.who.uid, reason);
    // A wake-up connection transfers only wake-ups, and this frame cannot follow half a reply.
    const auto session = connections.find(peer.session);
    const auto calls = peers.find(session != connections.end() ? session->second.calls : id);
    if (calls != peers.end() && !calls->second->has_output()) {
        say_farewell(calls->second->fd(), status, reason);
    }
    drop(id);
}

void Server::drop(PeerId id) {
    const auto found = peers.find(id);
    if (found == peers.end()) {
        return;
    }
    const std::uint64_t session = found->second->session;
    erase(id);
    if (session != 0) {
        drop_session(session);
    }
}

// A client's two connections end together.
void Server::drop_session(std::uint64_t session) {
    const auto found = connections.find(session);
    if (found == connections.end()) {
        return;
    }
    const Connections both = found->second;
    connections.erase(found);
    erase(both.calls);
    erase(both.wake);
    service.close(session);
}

void Server::erase(PeerId id) {
    const auto found = peers.find(id);
    if (found == peers.end()) {
        return;
    }
    const auto user = user_connections.find(found->second->who.uid);
    if (--user->second == 0) {
        user_connections.erase(user);
    }
    peers.erase(found); // closing also removes it from epoll
    service.usage().set(Limit::connections, peers.size());
}

} // namespace tav
