#include "faults/faulty_service.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "service/log.h"

namespace faults {

using tav::Event;
using tav::Op;
using tav::Reader;
using tav::Session;
using tav::Writer;

namespace {

constexpr std::size_t request_header_bytes = 5;

// Removes the event list from a reply to a fetch, and inserts one.
std::vector<Event> events_in(const std::string &reply, tav::ReplyHeader &header) {
    Reader in(std::string_view(reply).substr(tav::length_bytes));
    std::vector<Event> events;
    get(in, header);
    while (in.ok() && !in.finished()) {
        std::vector<Event> part;
        tav::get_all(in, part);
        events.insert(events.end(), part.begin(), part.end());
    }
    return events;
}

std::string reply_with(const tav::ReplyHeader &header, const std::vector<Event> &events) {
    Writer out;
    put(out, header);
    tav::put_all(out, events);
    return out.finish();
}

// As if there were too much below the node: the client then reads plainly, and each read can be
// struck.
std::string decline_read_ahead(std::uint32_t serial) {
    Writer out;
    put(out, tav::ReplyHeader{serial, false});
    put(out, api_status_ok);
    tav::AheadElement mark;
    mark.depth = tav::depth_too_large;
    put(out, mark);
    return out.finish();
}

bool concerns_events(Mode mode) {
    return mode == Mode::duplicate || mode == Mode::reorder || mode == Mode::spurious;
}

bool holds_change(const std::vector<Event> &events) {
    return std::any_of(events.begin(), events.end(),
                       [](const Event &event) { return event.command != mlr_event_notice; });
}

} // namespace

FaultyService::FaultyService(tav::Store &tree, std::string database, Plan staged)
    : Service(tree, std::move(database), std::chrono::steady_clock::now), plan(std::move(staged)) {}

// False for operations that no plan can name.
bool FaultyService::look_at(std::string_view body, Request &request) {
    Reader in(body);
    get(in, request.header);
    if (!in.ok()) {
        return false;
    }
    request.content = body.substr(request_header_bytes);
    switch (request.header.op) {
    case Op::read:
        request.operation = Operation::read;
        return true;
    case Op::list:
        request.operation = Operation::list;
        return true;
    case Op::transact: {
        std::vector<tav::Item> items;
        tav::get_all(in, items);
        const bool sets = !items.empty() && items.front().kind == tav::ItemKind::set;
        request.operation = sets ? Operation::write : Operation::remove;
        return true;
    }
    case Op::event_register:
        request.operation = Operation::enlist;
        return true;
    case Op::events_get:
        request.operation = Operation::events;
        return true;
    case Op::watchdog_register:
        request.operation = Operation::watchdog;
        return true;
    case Op::watchdog_ping:
    case Op::ping_after_answers:
        request.operation = Operation::ping;
        return true;
    default:
        return false;
    }
}

// Null for a client that gets no faults.
FaultyService::Victim *FaultyService::victim_of(const Session &session, const Request &request) {
    const std::uint64_t number = session.ticket().session;
    if (request.operation == Operation::enlist) {
        tav::Registration registration;
        Reader in(request.content);
        get(in, registration);
        victims[number].registered = registration.path;
    } else if (request.operation == Operation::watchdog) {
        victims[number];
    }
    const auto found = victims.find(number);
    return found == victims.end() ? nullptr : &found->second;
}

tav::Service::Begun FaultyService::begin(Session &session, std::string_view body,
                                         std::string &reply, std::unique_ptr<tav::Task> &task) {
    Request request;
    Victim *const victim = look_at(body, request) ? victim_of(session, request) : nullptr;
    if (request.header.op == Op::read_ahead && victims.count(session.id()) > 0) {
        reply = decline_read_ahead(request.header.serial);
        session.request(now());
        return Begun::answered;
    }
    // Nothing can be carried out at once beside a long transaction of another client.
    if (victim == nullptr || busy()) {
        return Service::begin(session, body, reply, task);
    }
    return handle_victim(session, *victim, request, body, reply) ? Begun::answered
                                                                 : Begun::malformed;
}

bool FaultyService::handle_victim(Session &session, Victim &victim, const Request &request,
                                  std::string_view body, std::string &reply) {
    const bool struck = plan.strikes(request.operation);
    if (struck) {
        tav::log_line("fault: %s on %s", name_of(plan.mode()), name_of(request.operation));
    }
    if (struck && plan.mode() == Mode::vanish) {
        remove_as_somebody_else();
    } else if (struck && !concerns_events(plan.mode())) {
        return stage(session, request, body, reply);
    }
    if (!Service::handle(session, body, reply)) {
        return false;
    }
    if (request.operation == Operation::events) {
        alter_events(session, victim, struck, reply);
    }
    return true;
}

bool FaultyService::stage(Session &session, const Request &request, std::string_view body,
                          std::string &reply) {
    if (plan.mode() == Mode::refuse) {
        return refuse(session, request, body, reply);
    }
    if (plan.mode() == Mode::echo && request.operation == Operation::enlist) {
        return register_with_own_changes(session, request, reply);
    }
    if (!plan.undone() && !Service::handle(session, body, reply)) {
        return false;
    }
    if (plan.mode() == Mode::garble) {
        garble(reply);
    } else if (plan.mode() == Mode::hang) {
        reply.clear();
    } else {
        if (plan.mode() == Mode::cut && !reply.empty()) {
            cut(reply);
        }
        end(session, victims.at(session.ticket().session));
    }
    return true;
}

// The service sends a farewell frame afterwards. The length in the reply is so large that the reply
// stays incomplete even with that frame.
void FaultyService::cut(std::string &reply) {
    reply.replace(0, tav::length_bytes, std::string("\0\xff\xff\xff", tav::length_bytes));
    reply.resize(tav::length_bytes + plan.below(reply.size() - tav::length_bytes));
}

bool FaultyService::refuse(Session &session, const Request &request, std::string_view body,
                           std::string &reply) {
    const tav::ReplyHeader header{request.header.serial, false};
    if (request.operation == Operation::events || request.operation == Operation::ping) {
        return Service::handle(session, body,
                               reply); // the first has no status, the second no reply
    }
    Writer out;
    put(out, header);
    Reader in(request.content);
    if (request.operation == Operation::read) {
        std::vector<std::string> paths;
        tav::get_all(in, paths);
        tav::put_all(out, std::vector<tav::LeafAnswer>(paths.size(), {api_status_refused, {}}));
    } else if (request.header.op == Op::transact) {
        std::vector<tav::Item> items;
        tav::get_all(in, items);
        tav::put_all(out, std::vector<api_status_t>(items.size(), api_status_refused));
    } else {
        put(out, api_status_refused);
        if (request.operation == Operation::list) {
            tav::put_all(out, std::vector<tav::Child>());
        }
    }
    session.request(now());
    reply = out.finish();
    return true;
}

bool FaultyService::register_with_own_changes(Session &session, const Request &request,
                                              std::string &reply) {
    tav::Registration registration;
    Reader in(request.content);
    get(in, registration);
    registration.own_changes = true;
    Writer out;
    put(out, request.header);
    put(out, registration);
    const std::string frame = out.finish();
    return Service::handle(session, std::string_view(frame).substr(tav::length_bytes), reply);
}

// Another serial number, or a byte too few.
void FaultyService::garble(std::string &reply) {
    if (reply.size() <= tav::length_bytes) {
        return;
    }
    if (plan.below(2) == 0) {
        reply[tav::length_bytes] = static_cast<char>(~reply[tav::length_bytes]);
        return;
    }
    reply.pop_back();
    std::size_t length = reply.size() - tav::length_bytes;
    for (std::size_t i = tav::length_bytes; i > 0; --i, length >>= 8U) {
        reply[i - 1] = static_cast<char>(length & 0xffU);
    }
}

void FaultyService::alter_events(Session &session, Victim &victim, bool struck,
                                 std::string &reply) {
    tav::ReplyHeader header;
    std::vector<Event> events = events_in(reply, header);
    const std::vector<Event> fresh = events;
    events.insert(events.end(), victim.late.begin(), victim.late.end());
    victim.late.clear();
    if (struck && plan.mode() == Mode::duplicate && holds_change(fresh)) {
        events.insert(events.end(), fresh.begin(), fresh.end());
        victim.late = fresh;
        make_readable(session, victim);
    } else if (struck && plan.mode() == Mode::reorder) {
        for (std::size_t i = events.size(); i > 1; --i) {
            std::swap(events[i - 1], events[plan.below(i)]);
        }
    } else if (struck && plan.mode() == Mode::spurious) {
        make_readable(session, victim);
    }
    reply = reply_with(header, events);
}

void FaultyService::remove_as_somebody_else() {
    tav::Item item;
    item.kind = tav::ItemKind::remove;
    item.path = plan.path();
    write({item});
}

// A notice reports no change: for the client nothing is pending. The wake-up itself follows the
// normal rules.
void FaultyService::make_readable(Session &session, const Victim &victim) {
    session.add_notice(victim.registered, now());
}

// The client counts as one that did not fetch its events: the server disconnects it after sending
// the reply.
void FaultyService::end(Session &session, const Victim &victim) {
    if (!victim.registered.empty()) {
        session.overflow();
    }
}

} // namespace faults
