#include "service/service.h"

#include <sys/random.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "protocol/limits.h"

namespace tav {

namespace {

std::uint64_t random_token() {
    std::uint64_t token = 0;
    // A request this small is neither interrupted nor cut once the kernel's source is ready.
    if (::getrandom(&token, sizeof token, 0) != static_cast<ssize_t>(sizeof token)) {
        throw std::runtime_error(std::string("cannot get random numbers: ") + std::strerror(errno));
    }
    return token;
}

} // namespace

Service::Service(Store &served, std::string database, Clock time_source)
    : store(served), database_name(std::move(database)), clock(std::move(time_source)),
      started(clock()) {}

Session &Service::open(const Credentials &peer, bool writer) {
    const Ticket ticket{next_session++, random_token()};
    auto session = std::make_unique<Session>(ticket, peer, writer);
    return *(clients[ticket.session] = std::move(session));
}

Session *Service::find(const Ticket &ticket) const {
    const auto session = clients.find(ticket.session);
    const bool found = session != clients.end() && session->second->ticket().token == ticket.token;
    return found ? session->second.get() : nullptr;
}

void Service::close(std::uint64_t session) {
    dog.depart(session);
    clients.erase(session);
}

void Service::count_overflow(const Session &session) {
    ++overflows;
    limits_used.refuse(session.pending_events() >= limits::pending_events ? Limit::pending_events
                                                                          : Limit::pending_bytes);
}

bool Service::handle(Session &session, std::string_view body, std::string &reply) {
    Reader in(body);
    RequestHeader header;
    get(in, header);
    if (!in.ok()) {
        return false;
    }
    if (header.op == Op::watchdog_ping) {
        if (!in.finished()) {
            return false;
        }
        // No reply: the client continues at once and is not woken.
        const Time now = clock();
        session.ping(now);
        dog.ping(session.ticket().session, now);
        reply.clear();
        return true;
    }
    Writer out(std::move(reply));
    const auto answer = [&out, &header](bool drain) {
        put(out, ReplyHeader{header.serial, drain});
    };
    // Fetches and acknowledgements have their own rules; all other requests are work.
    if (header.op == Op::events_get) {
        if (!in.finished()) {
            return false;
        }
        bool drain = false;
        const std::vector<Event> events = session.fetch(clock(), drain);
        answer(drain);
        put_all(out, events);
    } else if (header.op == Op::wake_acknowledge) {
        if (!in.finished()) {
            return false;
        }
        answer(session.acknowledge(clock()));
    } else {
        answer(false);
        if (!dispatch(session, header.op, in, out)) {
            return false;
        }
        // The time after carrying out the request: a write may have taken long.
        session.request(clock());
    }
    reply = out.finish();
    return true;
}

bool Service::dispatch(Session &session, Op op, Reader &in, Writer &out) {
    switch (op) {
    case Op::read:
        return handle_read(in, out);
    case Op::list:
        return handle_list(in, out);
    case Op::transact:
        return handle_transact(session, in, out);
    case Op::event_register:
        return handle_register(session, in, out);
    case Op::watchdog_register:
        return handle_watchdog(session, in, out);
    case Op::dump:
        return handle_dump(in, out);
    case Op::status:
        if (!in.finished()) {
            return false;
        }
        put_status(out);
        return true;
    default:
        return false;
    }
}

void Service::answer(Writer &out, api_status_t status) {
    limits_used.count(status);
    put(out, status);
}

// The library obeys the limits and never sends more.
bool Service::fits(std::size_t paths) {
    limits_used.raise(Limit::request_paths, paths);
    if (paths <= limits::paths_per_request) {
        return true;
    }
    limits_used.refuse(Limit::request_paths);
    return false;
}

bool Service::handle_read(Reader &in, Writer &out) {
    constexpr std::size_t empty_answer = 1;
    constexpr std::size_t value_overhead = 13; // type, length of the text, time
    const std::uint32_t paths = in.count(1);
    if (!fits(paths)) {
        return false;
    }
    out.u32(paths);
    for (std::size_t unanswered = paths; unanswered > 0 && in.ok(); --unanswered) {
        const Value *value = nullptr;
        api_status_t status = store.read(in.text(), value);
        const std::size_t size = value_overhead + (value != nullptr ? value->text.size() : 0);
        if (out.size() + size + unanswered * empty_answer > limits::frame_bytes) {
            status = api_status_too_large;
        }
        limits_used.count(status);
        put_leaf(out, status, value);
    }
    return in.finished();
}

bool Service::handle_list(Reader &in, Writer &out) {
    std::string path;
    get(in, path);
    if (!in.finished()) {
        return false;
    }
    std::vector<Child> children;
    answer(out, store.list(path, children));
    put_all(out, children);
    return true;
}

bool Service::handle_transact(Session &session, Reader &in, Writer &out) {
    if (!fits(Reader(in).count(1))) {
        return false; // before memory is reserved for them
    }
    std::vector<Item> items;
    get_all(in, items);
    if (!in.finished()) {
        return false;
    }
    if (!session.may_write()) {
        put_all(out, std::vector<api_status_t>(items.size(), api_status_denied));
        return true;
    }
    const Outcome outcome =
        store.transact(items, [&session](const std::string &path) { return session.unseen(path); });
    out.u32(static_cast<std::uint32_t>(outcome.statuses.size()));
    for (const api_status_t status : outcome.statuses) {
        answer(out, status);
    }
    const Time now = clock();
    for (const auto &[number, client] : clients) {
        for (const Event &event : outcome.events) {
            client->offer(event, client.get() == &session, now);
        }
        limits_used.raise(Limit::pending_events, client->pending_events());
        limits_used.raise(Limit::pending_bytes, client->pending_bytes());
    }
    return true;
}

bool Service::handle_register(Session &session, Reader &in, Writer &out) {
    Registration registration;
    get(in, registration);
    if (!in.finished()) {
        return false;
    }
    answer(out, session.register_events(registration, clock()));
    limits_used.raise(Limit::registrations, session.status().registrations);
    return true;
}

bool Service::handle_watchdog(Session &session, Reader &in, Writer &out) {
    WatchdogRequest request;
    get(in, request);
    if (!in.finished()) {
        return false;
    }
    answer(out, dog.announce(session.ticket().session, session.pid(), request, clock()));
    return true;
}

bool Service::handle_dump(Reader &in, Writer &out) {
    DumpRequest request;
    get(in, request);
    if (!in.finished()) {
        return false;
    }
    DumpPage page;
    store.dump(request, page);
    put(out, page);
    return true;
}

void Service::note_usage() {
    const Extents &largest = store.largest();
    limits_used.set(Limit::path_bytes, largest.path_bytes);
    limits_used.set(Limit::depth, largest.depth);
    limits_used.set(Limit::name_bytes, largest.name_bytes);
    limits_used.set(Limit::value_bytes, largest.value_bytes);
    limits_used.set(Limit::children, largest.children);
    limits_used.set(Limit::elements, store.tree().elements());
}

void Service::put_status(Writer &out) {
    const Time now = clock();
    ServiceStatus status;
    status.pid = static_cast<std::uint32_t>(::getpid());
    status.database = database_name;
    status.uptime = static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::seconds>(now - started).count());
    status.revision = store.revision();
    status.nodes = store.tree().node_count();
    status.leaves = store.tree().leaf_count();
    status.durability = store.durability();
    status.overflowed = overflows;
    note_usage();
    status.limits = limits_used.status();
    for (const auto &[number, client] : clients) {
        status.clients.push_back(client->status());
    }
    status.watchdogs = dog.status(now);
    put(out, status);
}

} // namespace tav
