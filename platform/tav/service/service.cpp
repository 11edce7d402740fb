#include "service/service.h"

#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "protocol/limits.h"
#include "service/log.h"

namespace tav {

namespace {

// Before another try to revert a change.
constexpr std::chrono::seconds revert_pause{5};

std::uint64_t random_token() {
    std::uint64_t token = 0;
    // A request this small is neither interrupted nor cut once the kernel's source is ready.
    if (::getrandom(&token, sizeof token, 0) != static_cast<ssize_t>(sizeof token)) {
        throw std::runtime_error(std::string("cannot get random numbers: ") + std::strerror(errno));
    }
    return token;
}

} // namespace

Service::Service(Store &store, std::string database, Clock time_source)
    : served(store), database_name(std::move(database)), clock(std::move(time_source)),
      started(clock()) {
    served.before_reveal = [this](const Tree &before, const Tree &after) {
        ahead.change(before, after);
    };
}

Session &Service::open(const Credentials &peer, bool writer) {
    const Ticket ticket{next_session++, random_token()};
    auto session = std::make_unique<Session>(ticket, peer, writer, served.events());
    return *(clients[ticket.session] = std::move(session));
}

Session *Service::find(const Ticket &ticket) const {
    const auto session = clients.find(ticket.session);
    const bool found = session != clients.end() && session->second->ticket().token == ticket.token;
    return found ? session->second.get() : nullptr;
}

void Service::close(SessionId session) {
    dog.depart(session);
    ahead.release(session);
    clients.erase(session);
    trim_events();
}

void Service::count_overflow() {
    ++overflows;
    limits_used.refuse(Limit::event_bytes);
}

Service::Begun Service::begin(Session &session, std::string_view body, std::string &reply,
                              std::unique_ptr<Task> &task) {
    Reader in(body);
    RequestHeader header;
    get(in, header);
    if (!in.ok()) {
        return Begun::malformed;
    }
    const bool empty = in.finished();
    const Time now = clock();
    switch (header.op) {
    case Op::watchdog_ping:
    case Op::ping_after_answers:
        // No reply: the client continues at once and is not woken.
        if (empty) {
            if (header.op == Op::ping_after_answers) {
                session.request(now);
                session.list(now); // of what the client had read ahead
            }
            session.ping(now);
            dog.ping(session.id(), now);
            reply.clear();
        }
        break;
    // Acknowledgements and fetches have their own rules; all other requests are work.
    case Op::wake_acknowledge:
        if (empty) {
            Writer out(std::move(reply));
            put(out, ReplyHeader{header.serial, session.acknowledge(now), false});
            reply = out.finish();
        }
        break;
    default:
        if (header.op == Op::list || header.op == Op::read_ahead) {
            session.list(now);
        }
        task = make_task(*this, session, header, in.remaining());
        return task ? Begun::started : Begun::malformed;
    }
    return empty ? Begun::answered : Begun::malformed;
}

bool Service::handle(Session &session, std::string_view body, std::string &reply) {
    std::unique_ptr<Task> task;
    const Begun begun = Service::begin(session, body, reply, task);
    if (begun != Begun::started) {
        return begun == Begun::answered;
    }
    Task::State state = Task::State::working;
    while (state == Task::State::working || state == Task::State::blocked) {
        state = task->step();
        if (state == Task::State::blocked && !committer.busy()) {
            trim_events();
            commit();
        }
        if (committer.busy()) {
            commit_ended();
        }
    }
    if (state == Task::State::malformed) {
        return false;
    }
    reply = task->take_frame(false);
    if (task->is_work()) {
        completed(session);
    }
    return true;
}

void Service::write(const std::vector<Item> &items) {
    if (committer.busy()) {
        commit_ended();
    }
    served.transact(
        items, [](const std::string & /*path*/) { return false; }, 0, clock());
    group_ended();
}

void Service::commit() {
    if (!served.has_group() || committer.busy() || lags()) {
        return;
    }
    const Edit::Changes &changes = served.close_group();
    ++released; // for those that the full group let wait
    if (!changes.empty() && served.permanent().is_slow(changes)) {
        try {
            committer.start(served.permanent(), changes);
            return;
        } catch (const std::exception &) {
            // Without another thread it is done here.
        }
    }
    served.events().announce(clock());
    if (before_commit) {
        before_commit();
    }
    served.finish(changes.empty() || served.permanent().commit(changes), clock());
    group_ended(static_cast<bool>(before_commit));
}

void Service::commit_ended() {
    served.finish(committer.finish(), clock());
    group_ended();
}

void Service::group_ended(bool announced) {
    ++released;
    published += announced ? 0U : 1U;
    trim_events();
}

bool Service::take_turn(SessionId session) {
    if (!may_begin() || ends_wait) {
        return false;
    }
    writing = session;
    return true;
}

void Service::resume(std::int64_t wall_clock) {
    served.resume_terms(clock(), wall_clock);
    do {
        revert();
        served.commit(clock());
    } while (ends_wait);
    group_ended();
}

std::optional<Time> Service::next_end() const {
    if (ends_wait) {
        return reversal || may_begin() ? std::optional(clock()) : std::nullopt;
    }
    std::optional<Time> next;
    for (const auto &[number, pending] : served.pending_next()) {
        const Time due = std::max(pending->due, pending->retry);
        next = next ? std::min(*next, due) : due;
    }
    return next;
}

void Service::revert() {
    constexpr int parts_at_once = 4;
    const bool others_waited = ends_wait;
    for (int i = 0; i < parts_at_once; ++i) {
        if (reversal && reversal->outdated()) {
            end_reversal();
        }
        const PendingPtr pending = reversal ? reversal->change() : first_due();
        if (!pending || (!reversal && !may_begin())) {
            break;
        }
        try {
            revert(pending);
        } catch (const std::exception &error) {
            log_line("cannot revert change %" PRIu64 " yet: %s", pending->change.number,
                     error.what());
            end_reversal();
            pending->retry = clock() + revert_pause;
        }
    }
    ends_wait = reversal || first_due();
    released += others_waited && !ends_wait ? 1U : 0U;
}

PendingPtr Service::first_due() const {
    for (const auto &[number, pending] : served.pending_next()) {
        if (std::max(pending->due, pending->retry) <= clock()) {
            return pending;
        }
    }
    return nullptr;
}

// Does a part of it.
void Service::revert(const PendingPtr &pending) {
    const std::string number = std::to_string(pending->change.number);
    if (!reversal) {
        log_line("reverting change %s of user %u: it was not confirmed within %g s", number.c_str(),
                 pending->change.uid, pending->term / 1000.0);
        reversal.emplace(served, pending);
    }
    if (reversal->advance({::geteuid(), static_cast<std::uint32_t>(::getpid()),
                           "tavd reverting " + number, true})) {
        end_reversal();
        pending->retry = clock() + revert_pause; // if it cannot be stored
    }
}

void Service::end_reversal() {
    reversal.reset();
    ++released;
}

void Service::registering(int change) {
    registrations += change;
    released += change < 0 ? 1U : 0U;
}

Transaction *Service::may_precede() const {
    return served.group_is_full() ? nullptr : carried_out;
}

void Service::end_turn() {
    writing = 0;
    carried_out = nullptr;
    ++released;
}

bool Service::lags() const {
    const EventLog &log = served.events();
    return log.merges() || (trimming && log.published().bytes() > limits::event_bytes);
}

void Service::trim_events() {
    EventLog &log = served.events();
    const bool merged = log.merges(); // fetches wait for that
    const bool lagged = lags();       // and the next group for this
    if (merged) {
        log.merge();
    }
    trimming = log.merges() || !trim();
    released += (merged && !log.merges()) || (lagged && !lags()) ? 1U : 0U;
}

// Returns false if there is more to forget.
bool Service::trim() {
    EventLog &log = served.events();
    for (;;) {
        std::uint64_t first = log.end();
        for (const auto &[number, client] : clients) {
            first = std::min(first, client->keeps_after().value_or(first));
        }
        if (!log.forget(first)) {
            // Nobody is given up for what nobody needs.
            return false;
        }
        limits_used.raise(Limit::event_bytes, log.published().bytes());
        if (log.published().bytes() <= limits::event_bytes) {
            return true;
        }
        for (const auto &[number, client] : clients) {
            if (client->keeps_after() == first) {
                client->overflow();
            }
        }
        ++published; // so that the server ends them
    }
}

bool Service::fits(const Pending &pending) {
    std::size_t number = 1;
    std::size_t bytes = pending.row.text.size();
    for (const auto &[other, waiting] : served.pending_next()) {
        if (waiting->change.uid == pending.change.uid) {
            ++number;
            bytes += waiting->row.text.size();
        }
    }
    const bool few = number <= limits::pending_changes;
    const bool small = bytes <= limits::pending_bytes;
    limits_used.raise(Limit::pending_changes, few ? number : 0);
    limits_used.raise(Limit::pending_bytes, small ? bytes : 0);
    if (!few || !small) {
        limits_used.refuse(few ? Limit::pending_bytes : Limit::pending_changes);
    }
    return few && small;
}

bool Service::fits(std::size_t paths) {
    limits_used.raise(Limit::request_paths, paths);
    if (paths <= limits::paths_per_request) {
        return true;
    }
    limits_used.refuse(Limit::request_paths);
    return false;
}

Author Service::author(const Session &session) const {
    const std::string *const watchdog = dog.name_of(session.id());
    return Author{session.uid(), session.pid(), watchdog != nullptr ? *watchdog : session.program,
                  watchdog != nullptr};
}

ServiceStatus Service::status() {
    const Time now = clock();
    const Extent &extent = served.tree().extent();
    const Sizes &largest = served.largest();
    limits_used.set(Limit::path_bytes, largest.path_bytes);
    limits_used.set(Limit::depth, largest.depth);
    limits_used.set(Limit::name_bytes, largest.name_bytes);
    limits_used.set(Limit::value_bytes, largest.value_bytes);
    limits_used.set(Limit::children, largest.children);
    limits_used.set(Limit::elements, extent.elements());
    limits_used.set(Limit::bytes, extent.bytes);
    limits_used.change(Limit::bytes, served.byte_limit);
    limits_used.set(Limit::read_aheads, ahead.number());

    ServiceStatus status;
    status.pid = static_cast<std::uint32_t>(::getpid());
    status.database = database_name;
    status.uptime = static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::seconds>(now - started).count());
    status.revision = served.revision();
    status.nodes = extent.nodes;
    status.leaves = extent.leaves;
    status.durability = served.durability();
    status.overflowed = overflows;
    status.limits = limits_used.status();
    status.watchdogs = dog.status(now);
    return status;
}

} // namespace tav
