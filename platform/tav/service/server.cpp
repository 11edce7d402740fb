#include "service/server.h"

#include <malloc.h>
#include <sys/epoll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

#include "protocol/limits.h"
#include "service/garbage.h"
#include "service/log.h"

namespace tav {

namespace {

// So long requests are served before timers are looked after.
constexpr std::chrono::milliseconds slice{2};
// Meanwhile what was written is committed, and what has arrived is received, this often, or clients
// that send one request after the other would make all others wait for the end of the slice.
constexpr std::chrono::microseconds look_pause{50};
// The least time that a turn is charged with, for what is not measured.
constexpr std::chrono::microseconds least_charge{2};
// Memory is given back to the system this long after much of it was in use.
constexpr std::chrono::seconds trim_pause{5};

// Not the service's clock, which tests stop: how long a part of the work takes is real.
using Stopwatch = std::chrono::steady_clock;

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
    service.holders().set_notify(
        [this](std::uint64_t session, std::uint32_t serial) { notify(session, serial); });
    service.before_commit = [this] { look_after_all(); };
}

Server::~Server() {
    service.holders().set_notify({});
    service.before_commit = nullptr;
}

void Server::watch(int fd, PeerId id, std::uint32_t events, int operation) const {
    epoll_event event{};
    event.events = events;
    event.data.u64 = id;
    if (::epoll_ctl(epoll.get(), operation, fd, &event) != 0) {
        fail("epoll_ctl");
    }
}

// Not watched at all without events: a connection that the other side has closed would be reported
// all the same.
void Server::watch(PeerId id, Peer &peer, std::uint32_t events) const {
    if (peer.watched != events) {
        const int change = peer.watched == 0 ? EPOLL_CTL_ADD : EPOLL_CTL_MOD;
        watch(peer.fd(), id, events, events == 0 ? EPOLL_CTL_DEL : change);
        peer.watched = events;
    }
}

void Server::run() {
    while (receive(timeout()) && work()) {
        garbage::give_back();
        if (service.trims()) {
            service.trim_events();
        }
        if (accept_again && service.now() >= *accept_again) {
            accept_again.reset();
            watch(listener.fd(), listener_id, EPOLLIN, EPOLL_CTL_MOD);
        }
        end_slow_greetings();
        end_slow_readers();
        limit_kept_bytes();
        service.watchdog().check(service.now());
        if (next_wake && *next_wake <= service.now()) {
            look_after_all();
        }
        if (trim && *trim <= service.now()) {
            trim.reset();
            ::malloc_trim(0);
        } else if (!trim) {
            // Any round may free memory: a connection ends, events are forgotten.
            trim = service.now() + trim_pause;
        }
    }
}

// Waits at most `most` milliseconds for something to arrive. False when a signal has arrived.
bool Server::receive(int most) {
    std::array<epoll_event, 64> events{};
    const int ready =
        ::epoll_wait(epoll.get(), events.data(), static_cast<int>(events.size()), most);
    if (ready < 0 && errno != EINTR) {
        fail("epoll_wait");
    }
    for (int i = 0; i < ready; ++i) {
        const PeerId id = events.at(static_cast<std::size_t>(i)).data.u64;
        if (id == signals_id) {
            return false;
        }
        if (id == listener_id) {
            accept_all();
        } else if (id == commit_id) {
            service.commit_ended();
        } else {
            arrived(id);
        }
    }
    return true;
}

// A connection can be read, or written if a reply is waiting.
void Server::arrived(PeerId id) {
    const auto found = peers.find(id);
    if (found == peers.end()) {
        return; // dropped earlier in this round
    }
    Peer &peer = *found->second;
    try {
        if (peer.has_output()) {
            if (!peer.flush()) {
                drop(id);
                return;
            }
            account(peer);
            if (peer.has_output()) {
                return;
            }
            unsent.erase(id);
            if (!peer.task) {
                peer.unsent_since.reset();
            }
            watch(id, peer, EPOLLIN);
        } else if (peer.task || peer.has_request()) {
            // Its turn comes; until then nothing more is received.
            watch(id, peer, 0);
            return;
        } else if (!peer.receive()) {
            drop(id);
            return;
        }
        // A first frame is short: do not keep more from a connection that has not identified
        // itself.
        if (peer.role == Peer::Role::stranger && peer.held() > limits::greeting_bytes) {
            dismiss(id, api_status_refused, "the client sent an invalid request");
            return;
        }
        if (peer.task || peer.has_request()) {
            schedule.add(peer.who.uid, id, peer.kind());
        }
        account(peer);
    } catch (const std::exception &error) {
        log_line("a request failed (%s), its client was disconnected", error.what());
        drop(id);
    }
    limit_held_bytes();
}

// Serves those who have a request for one slice of time, and commits what they have written. False
// when a signal has arrived.
bool Server::work() {
    const Stopwatch::time_point end = Stopwatch::now() + slice;
    service.revert(); // before what comes next is carried out
    do {
        release_blocked();
        const Stopwatch::time_point look = Stopwatch::now() + look_pause;
        while (!schedule.empty()) {
            serve_next();
            release_blocked();
            if (Stopwatch::now() >= look) {
                break;
            }
        }
        service.commit();
        watch_commit();
        if (looked_after != service.publications()) {
            looked_after = service.publications();
            look_after_all();
        }
        release_blocked();
        if (!schedule.empty() && !receive(0)) {
            return false;
        }
    } while (!schedule.empty() && Stopwatch::now() < end);
    return true;
}

// A commit that cannot be watched is waited for.
void Server::watch_commit() {
    if (service.committing() < 0 || commit_watched) {
        return;
    }
    try {
        watch(service.committing(), commit_id, EPOLLIN, EPOLL_CTL_ADD);
        commit_watched = true;
    } catch (const std::runtime_error &) {
        if (service.store().committing()) {
            service.commit_ended();
        }
    }
}

void Server::release_blocked() {
    if (released == service.releases()) {
        return;
    }
    released = service.releases();
    while (!blocked.empty()) {
        const PeerId id = *blocked.begin();
        blocked.erase(blocked.begin());
        try {
            const Peer &peer = *peers.at(id);
            schedule.add(peer.who.uid, id, peer.kind());
        } catch (const std::bad_alloc &) {
            drop(id);
        }
    }
}

// While others wait for the transaction at work to end, it gets every second turn: its user's other
// connections must not make them wait.
Server::PeerId Server::next_peer() {
    transaction_next = service.others_wait() && !transaction_next;
    const auto writer = connections.find(service.at_work());
    return transaction_next && writer != connections.end() ? writer->second.calls : schedule.next();
}

// A request of one client must not end the service for the others, for example if there is not
// enough memory for it. That client loses its connection.
void Server::serve_next() {
    const PeerId id = next_peer();
    Peer &peer = *peers.at(id);
    const uid_t user = peer.who.uid;
    const Schedule::Kind kind = peer.kind();
    const Stopwatch::time_point start = Stopwatch::now();
    try {
        serve(id, peer, start);
    } catch (const std::exception &error) {
        log_line("a request failed (%s), its client was disconnected", error.what());
        drop(id);
    }
    schedule.charge(user, id, kind,
                    std::max<Schedule::Duration>(Stopwatch::now() - start, least_charge));
}

// Carries out one request, or part of it. Further requests wait for the client's next turn, except
// one after a ping, which costs almost nothing.
void Server::serve(PeerId id, Peer &peer, Time start) {
    const Schedule::Kind kind = peer.kind();
    const Time until = start + Schedule::longest_turn(kind);
    bool after_ping = false;
    Turn turn = Turn::next;
    while (turn == Turn::next) {
        if (peer.task) {
            turn = go_on(id, peer);
        } else {
            turn = begin(id, peer);
            const bool ping = turn == Turn::next && !peer.task;
            turn = ping && after_ping ? Turn::over : turn;
            after_ping = after_ping || ping;
        }
        if (turn == Turn::gone) {
            return;
        }
        if (Stopwatch::now() >= until) {
            break;
        }
    }
    account(peer);
    peer.spent = peer.task ? peer.spent + (Stopwatch::now() - start) : Time::duration{};
    if (peer.kind() != kind && !peer.has_output() && blocked.count(id) == 0) {
        schedule.add(peer.who.uid, id, peer.kind());
    }
    if (!peer.task && !peer.has_output() && !peer.has_request()) {
        schedule.remove(peer.who.uid, id);
        peer.unsent_since.reset();
        watch(id, peer, EPOLLIN);
    }
    limit_held_bytes();
}

// Begins the next request: `next` if it has a task or was a ping.
Server::Turn Server::begin(PeerId id, Peer &peer) {
    std::string_view body;
    const FrameState state = peer.request(body);
    if (state == FrameState::incomplete) {
        return Turn::over;
    }
    if (state == FrameState::too_large) {
        service.usage().refuse(Limit::frame_bytes);
        dismiss(id, api_status_refused, "the client sent an invalid request");
        return Turn::gone;
    }
    service.usage().raise(Limit::frame_bytes, body.size());
    if (peer.role == Peer::Role::stranger) {
        if (!greet(id, peer, body)) {
            dismiss(id, api_status_refused, "the client sent an invalid request");
            return Turn::gone;
        }
        peer.consume(body);
        return send(id, peer, {});
    }
    std::string reply = peer.take_buffer();
    Service::Begun begun = Service::Begun::malformed;
    Session *session = nullptr;
    if (peer.role == Peer::Role::calls && peer.attached) {
        session = service.sessions().at(peer.session).get();
        begun = service.begin(*session, body, reply, peer.task);
    }
    if (begun == Service::Begun::malformed) {
        dismiss(id, api_status_refused, "the client sent an invalid request");
        return Turn::gone;
    }
    if (begun == Service::Begun::started) {
        return Turn::next;
    }
    peer.consume(body);
    return answer(id, peer, *session, std::move(reply));
}

// Carries out a part of the request at work.
Server::Turn Server::go_on(PeerId id, Peer &peer) {
    const Task::State state = peer.task->step();
    switch (state) {
    case Task::State::malformed:
        dismiss(id, api_status_refused, "the client sent an invalid request");
        return Turn::gone;
    case Task::State::blocked:
        blocked.insert(id);
        schedule.remove(peer.who.uid, id);
        return Turn::over;
    case Task::State::working:
        if (peer.task->made() < limits::reply_part_bytes) {
            return Turn::next;
        }
        return send(id, peer, peer.task->take_frame(true));
    case Task::State::done:
        break;
    }
    std::string frame = peer.task->take_frame(false);
    const bool is_work = peer.task->is_work();
    peer.task.reset();
    std::string_view body;
    peer.request(body);
    peer.consume(body);
    Session &session = *service.sessions().at(peer.session);
    if (is_work) {
        service.completed(session);
    } else if (session.overflowed()) {
        look_after(session); // disconnects it: the answer lacks events
        return Turn::gone;
    }
    return answer(id, peer, session, std::move(frame));
}

// Sends the end of an answer, if there is any, and does what the request has made due.
Server::Turn Server::answer(PeerId id, Peer &peer, const Session &session, std::string frame) {
    const Turn turn = frame.empty() ? Turn::next : send(id, peer, std::move(frame));
    if (turn != Turn::gone) {
        look_after(session);
    }
    return peers.count(id) > 0 ? turn : Turn::gone;
}

// Sends a frame, or what greet() has queued. The turn is over, unless more of an answer follows.
Server::Turn Server::send(PeerId id, Peer &peer, std::string frame) {
    if (!frame.empty()) {
        peer.reply(std::move(frame));
    }
    if (!peer.flush()) {
        drop(id);
        return Turn::gone;
    }
    if (peer.has_output()) {
        // One frame at a time: nothing more is done for this client until it has been sent.
        schedule.remove(peer.who.uid, id);
        unsent.insert(id);
        if (!peer.unsent_since) {
            peer.unsent_since = service.now();
        }
        watch(id, peer, EPOLLOUT);
        return Turn::over;
    }
    return peer.task ? Turn::next : Turn::over;
}

// Sends a client the notice that its read-ahead is void. If that fails, the client loses its
// connection at once; the loop removes the client when it finds the connection closed.
void Server::notify(std::uint64_t session, std::uint32_t serial) noexcept {
    const auto both = connections.find(session);
    const auto found = both != connections.end() ? peers.find(both->second.calls) : peers.end();
    if (found == peers.end()) {
        return;
    }
    Peer &peer = *found->second;
    bool told = false;
    try {
        Writer out;
        put(out, ReplyHeader{serial, false, false, true});
        told = peer.notify(out.finish());
    } catch (const std::bad_alloc &) {
        // As if it were full.
    }
    if (!told) {
        peer.cut();
        log_line("process %d of user %u was disconnected: it did not read a notice", peer.who.pid,
                 peer.who.uid);
    }
}

// Sends the client's wake-up byte if it is due, and ends a client that keeps too many events.
void Server::look_after(const Session &session) {
    const Connections both = connections.at(session.id());
    if (session.overflowed()) {
        service.count_overflow();
        dismiss(both.calls, api_status_refused, "the client did not fetch its events");
        return;
    }
    const std::optional<Time> due = session.wake_due();
    if (!due) {
        return;
    }
    if (*due > service.now()) {
        next_wake = next_wake ? std::min(*next_wake, *due) : *due;
        return;
    }
    // With at most one unread byte the connection cannot be full.
    if (peers.at(both.wake)->send_byte(wake_byte)) {
        service.sessions().at(session.id())->wake_sent();
    } else {
        drop_session(session.id());
    }
}

void Server::look_after_all() {
    next_wake.reset();
    for (auto entry = service.sessions().begin(); entry != service.sessions().end();) {
        const Session &session = *(entry++)->second; // it may end
        if (connections.at(session.id()).wake != 0) {
            look_after(session);
        }
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
    consider(next_wake);
    consider(service.next_end());
    consider(trim);
    if (!greeting.empty()) {
        // The queue contains all accepted connections, so the first one may have been closed long
        // ago: then the service wakes up once for nothing.
        const auto oldest = peers.find(greeting.front());
        consider(oldest != peers.end() ? oldest->second->accepted + greeting_time : service.now());
    }
    for (const PeerId id : unsent) {
        consider(*peers.at(id)->unsent_since + answer_time);
    }
    return next;
}

// Rounded up, so that the loop does not spin through the last millisecond.
int Server::timeout() const {
    // A client that was dropped since the last round may have made something due.
    const bool due = released != service.releases() || looked_after != service.publications();
    if (due || !schedule.empty() || !garbage::empty() || service.trims()) {
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
