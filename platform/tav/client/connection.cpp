#include "client/connection.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "client/report.h"
#include "protocol/limits.h"
#include "protocol/messages.h"

namespace tav {

using Clock = std::chrono::steady_clock;

namespace {

constexpr const char *malformed_reply = "the service sent a malformed reply";

// A service that ends the connection may have sent the reason before, so read what it has sent even
// if a frame cannot be sent.
bool may_receive(StreamResult sent) {
    return sent == StreamResult::done || sent == StreamResult::closed;
}

bool report_failure(const std::string &path, const char *why) {
    report_attempt(("cannot connect to the settings service at " + path + ": " + why).c_str());
    return false;
}

} // namespace

std::unique_ptr<Connection> Connection::open(const std::string &path,
                                             std::chrono::milliseconds limit, bool read_ahead) {
    std::unique_ptr<Connection> connection(new Connection(limit, read_ahead));
    if (!connection->wake.valid()) {
        report_attempt(
            (std::string("cannot create an event descriptor: ") + std::strerror(errno)).c_str());
        return nullptr;
    }
    if (!connection->establish(path)) {
        return nullptr;
    }
    report_attempt(nullptr);
    return connection;
}

// Opens the connection for calls, receives a ticket, and presents it on the second connection.
bool Connection::establish(const std::string &path) {
    const Clock::time_point deadline = Clock::now() + limit;
    Writer hello = request(Op::hello);
    put(hello, Hello{magic, protocol_version});
    std::string_view reply;
    if (!greet(path, hello, calls, replies, reply, deadline)) {
        return false;
    }
    Ticket ticket;
    Reader content(reply);
    get(content, ticket);
    if (!content.finished()) {
        return report_failure(path, malformed_reply);
    }

    Writer attach = request(Op::attach);
    put(attach, Hello{magic, protocol_version});
    put(attach, ticket);
    UniqueFd second;
    FrameStream only_reply(false); // only wake-ups follow it
    if (!greet(path, attach, second, only_reply, reply, deadline)) {
        return false;
    }
    if (!reply.empty()) {
        return report_failure(path, malformed_reply);
    }
    wake.adopt(std::move(second));
    return true;
}

// Makes one connection and the first exchange on it. False after reporting why it failed.
bool Connection::greet(const std::string &path, Writer &greeting, UniqueFd &socket,
                       FrameStream &frames, std::string_view &reply, Deadline deadline) {
    socket = connect_stream(path, deadline);
    if (!socket.valid()) {
        return report_failure(path, std::strerror(errno)); // NOLINT(concurrency-mt-unsafe)
    }
    std::string_view body;
    StreamResult result = send_all(socket.get(), greeting.finish(), deadline);
    if (may_receive(result)) {
        result = frames.receive(socket.get(), body, deadline);
    }
    if (result != StreamResult::done) {
        return report_failure(path, describe(result));
    }
    std::string why;
    return take_reply(body, reply, why) || report_failure(path, why.c_str());
}

Writer Connection::request(Op op) {
    Writer writer(std::move(spare));
    if (++serial == farewell_serial) {
        ++serial;
    }
    put(writer, RequestHeader{op, serial});
    return writer;
}

// Receives the next frame that is not a notice which is due.
StreamResult Connection::receive(std::string_view &body, Deadline deadline) {
    for (;;) {
        const StreamResult result = replies.receive(calls.get(), body, deadline);
        if (result != StreamResult::done) {
            return result;
        }
        Reader reader(body);
        ReplyHeader header;
        get(reader, header);
        if (!reader.finished() || !header.notice || !ahead.take_notice(header.serial)) {
            return result;
        }
    }
}

// Checks the header of a reply, drains what it acknowledges, and leaves the content. False with the
// reason in `why`.
bool Connection::take_reply(std::string_view body, std::string_view &reply, std::string &why,
                            bool *more) {
    Reader reader(body);
    ReplyHeader header;
    get(reader, header);
    if (reader.ok() && header.serial == serial && !header.notice &&
        (!header.more || more != nullptr) && (!header.drain || wake.drain_one())) {
        reply = reader.remaining();
        if (more != nullptr) {
            *more = header.more;
        }
        return true;
    }
    why = malformed_reply;
    if (reader.ok() && header.serial == farewell_serial) {
        Farewell farewell;
        get(reader, farewell);
        if (reader.finished()) {
            why = farewell.reason;
        }
    }
    return false;
}

bool Connection::call(const std::string &frame, std::string_view &reply) {
    std::string_view body;
    const Deadline deadline = Clock::now() + limit;
    StreamResult result = send_all(calls.get(), frame, deadline);
    if (may_receive(result)) {
        result = receive(body, deadline);
    }
    if (result != StreamResult::done) {
        lose(describe(result));
        return false;
    }
    std::string why;
    bool more = false;
    if (!take_reply(body, reply, why, &more)) {
        lose(why.c_str());
        return false;
    }
    recycle(assembled);
    return !more || take_rest(reply);
}

// Receives the frames that follow the first one of a reply, each within the time limit, and all of
// them within that of the service.
bool Connection::take_rest(std::string_view &reply) {
    const Deadline end = Clock::now() + answer_time;
    std::string why;
    for (bool more = true; more;) {
        assembled.append(reply);
        std::string_view body;
        const StreamResult result = receive(body, std::min(end, Clock::now() + limit));
        if (result != StreamResult::done) {
            lose(describe(result));
            return false;
        }
        if (!take_reply(body, reply, why, &more)) {
            lose(why.c_str());
            return false;
        }
        if (assembled.size() + reply.size() > limits::reply_bytes || (more && reply.empty())) {
            malformed();
            return false;
        }
    }
    assembled.append(reply);
    reply = assembled;
    return true;
}

bool Connection::exchange(Op op, Writer &request, std::string_view &reply) {
    try {
        spare = request.finish();
        const bool answered = !lost && call(spare, reply);
        recycle(spare);
        unannounced = false;
        if (op == Op::events_get) {
            wake.fetched();
        }
        if (answered) {
            return true;
        }
    } catch (...) {
        // Out of memory in the middle of a frame: the rest of the stream cannot be interpreted.
        lose("out of memory");
    }
    return false;
}

bool Connection::has_arrived() const {
    return replies.holds_more() || is_readable(calls.get());
}

bool Connection::ping() {
    const bool sent = !lost && send_ping();
    if (wake.is_left_alone()) {
        ahead.ask_next();
        Writer acknowledgement = request(Op::wake_acknowledge);
        std::string_view reply;
        if (!exchange(Op::wake_acknowledge, acknowledgement, reply)) {
            // This is the first ping of the lost connection.
            static_cast<void>(wake.is_left_alone());
        } else if (!reply.empty()) {
            malformed();
        }
    }
    return sent && !lost;
}

bool Connection::send_ping() {
    const Clock::time_point now = Clock::now();
    // This is the only way to notice a service that hangs while there are no calls.
    if (now > last_ping + limit && unread_bytes(calls.get()) > 0) {
        lose(describe(StreamResult::timed_out));
        return false;
    }
    last_ping = now;
    spare = request(unannounced ? Op::ping_after_answers : Op::watchdog_ping).finish();
    unannounced = false;
    StreamResult result = send_all(calls.get(), spare, now + limit);
    recycle(spare);
    if (result == StreamResult::done) {
        return true;
    }
    std::string why = describe(result);
    std::string_view body;
    if (result == StreamResult::closed && receive(body, now) == StreamResult::done) {
        std::string_view reply;
        take_reply(body, reply, why);
    }
    lose(why.c_str());
    return false;
}

void Connection::malformed() {
    lose(malformed_reply);
}

// After this every call fails at once. A late reply can therefore never be mistaken for the answer
// to a later call, and the service notices that the client is gone.
void Connection::lose(const char *why) {
    if (lost) {
        return;
    }
    lost = true;
    ahead.lose();
    report(report_lost, "connection to the settings service lost: %s", why);
    calls.reset();
    wake.lose();
}

} // namespace tav
