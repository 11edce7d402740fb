// How the server's connections begin and end.
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <stdexcept>

#include "protocol/limits.h"
#include "service/log.h"
#include "service/server.h"

namespace tav {

namespace {

// How long to wait before accepting again when there are no descriptors left.
constexpr std::chrono::milliseconds accept_pause{100};

// The last frame of a connection. One that cannot be made or sent at once is not sent at all.
void say_farewell(int fd, api_status_t status, const char *reason) noexcept {
    try {
        Writer out;
        put(out, ReplyHeader{farewell_serial, false});
        put(out, Farewell{status, reason});
        const std::string frame = out.finish();
        ::send(fd, frame.data(), frame.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    } catch (const std::bad_alloc &) {
        return;
    }
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
    const ConnectionLimits &limit = rights.connections;
    const std::size_t most = rights.owns(who.uid) ? limit.all : limit.all - limit.kept;
    if (peers.size() >= most) {
        service.usage().refuse(Limit::connections);
        return "the service has reached its limit of connections";
    }
    const auto own = users.find(who.uid);
    if (own != users.end() && own->second.connections >= limit.per_user) {
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
    const PeerId id = next_id++;
    User &user = users[who.uid];
    greeting.push_back(id);
    Peer &admitted = *(peers[id] = std::move(peer));
    ++user.connections;
    service.usage().set(Limit::connections, peers.size());
    service.usage().raise(Limit::user_connections, user.connections);
    try {
        watch(id, admitted, EPOLLIN);
    } catch (...) {
        drop(id);
        throw;
    }
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
        try {
            connections[peer.session].calls = id;
        } catch (const std::bad_alloc &) {
            service.close(peer.session); // it cannot be dropped with a connection
            throw;
        }
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

void Server::end_slow_readers() {
    for (auto id = unsent.begin(); id != unsent.end();) {
        const PeerId slow = *(id++); // it is erased from there
        if (*peers.at(slow)->unsent_since + answer_time <= service.now()) {
            dismiss(slow, api_status_refused, "the client did not read a reply in time");
        }
    }
}

// Charges the user with what the connection holds now.
void Server::account(Peer &peer) {
    User &user = users.at(peer.who.uid);
    user.held += peer.held() - peer.accounted;
    held += peer.held() - peer.accounted;
    peer.accounted = peer.held();
}

// Ends one client if all clients together use too much memory.
void Server::limit_held_bytes() {
    service.usage().raise(Limit::held_bytes, held);
    if (held <= limits::held_bytes) {
        return;
    }
    const auto user =
        std::max_element(users.begin(), users.end(), [](const auto &left, const auto &right) {
            return left.second.held < right.second.held;
        });
    const auto owned = [&user](const auto &peer) {
        return peer.second->who.uid == user->first ? peer.second->accounted : 0;
    };
    const auto most =
        std::max_element(peers.begin(), peers.end(), [&owned](const auto &left, const auto &right) {
            return owned(left) < owned(right);
        });
    service.usage().refuse(Limit::held_bytes);
    dismiss(most->first, api_status_refused, "too much data was waiting for this client");
}

// Ends the clients whose unfinished replies describe too much that was replaced since.
void Server::limit_kept_bytes() {
    constexpr std::uint64_t step = std::uint64_t{1} << 20; // not after each small change
    const std::uint64_t now = service.store().tree().replaced();
    if (now - kept_looked_at < step) {
        return;
    }
    kept_looked_at = now;
    PeerId id = 0;
    for (auto next = peers.begin(); next != peers.end(); next = peers.upper_bound(id)) {
        id = next->first; // it may end, and another one with it
        const Peer &peer = *next->second;
        const std::uint64_t began = peer.task ? peer.task->keeps().value_or(now) : now;
        const std::uint64_t kept = now > began ? now - began : 0;
        if (kept > limits::kept_bytes) {
            service.usage().refuse(Limit::kept_bytes);
            dismiss(id, api_status_refused, "too much was changed while it received a reply");
        } else {
            service.usage().raise(Limit::kept_bytes, kept);
        }
    }
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
    Peer &peer = *found->second;
    const auto user = users.find(peer.who.uid);
    held -= peer.accounted;
    user->second.held -= peer.accounted;
    if (--user->second.connections == 0) {
        users.erase(user);
    }
    schedule.forget(peer.who.uid, id);
    blocked.erase(id);
    unsent.erase(id);
    peers.erase(found); // closing also removes it from epoll
    service.usage().set(Limit::connections, peers.size());
}

} // namespace tav
