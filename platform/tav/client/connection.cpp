#include "client/connection.h"

#include <cerrno>
#include <cstring>

#include "client/report.h"
#include "client/stream.h"
#include "protocol/messages.h"

namespace tav {

using Clock = std::chrono::steady_clock;

std::unique_ptr<Connection> Connection::open(const std::string &path,
                                             std::chrono::milliseconds limit) {
    std::unique_ptr<Connection> connection(new Connection(limit));
    if (!connection->wake.valid()) {
        report(report_unreachable, "cannot create an event descriptor: %s", std::strerror(errno));
        return nullptr;
    }
    if (!connection->establish(path)) {
        return nullptr;
    }
    return connection;
}

// Opens the connection for calls, is given a ticket, and presents it on the second connection.
bool Connection::establish(const std::string &path) {
    const Clock::time_point deadline = Clock::now() + limit;
    const auto failed = [&path](const char *why) {
        report(report_unreachable, "cannot connect to the settings service at %s: %s", path.c_str(),
               why);
        return false;
    };

    calls = connect_stream(path, deadline);
    if (!calls.valid()) {
        return failed(std::strerror(errno));
    }
    Writer hello = request(Op::hello);
    put(hello, Hello{magic, protocol_version});
    std::string_view body;
    std::string_view reply;
    StreamResult result = send_all(calls.get(), hello.finish(), deadline);
    if (result == StreamResult::done) {
        result = receive_frame(calls.get(), received, body, deadline);
    }
    if (result != StreamResult::done) {
        return failed(describe(result));
    }
    Ticket ticket;
    if (!take_reply(body, reply)) {
        return failed("the service sent a malformed reply");
    }
    Reader content(reply);
    get(content, ticket);
    if (!content.finished()) {
        return failed("the service sent a malformed reply");
    }

    UniqueFd second = connect_stream(path, deadline);
    if (!second.valid()) {
        return failed(std::strerror(errno));
    }
    Writer attach = request(Op::attach);
    put(attach, Hello{magic, protocol_version});
    put(attach, ticket);
    result = send_all(second.get(), attach.finish(), deadline);
    if (result == StreamResult::done) {
        // Reads this frame and not one byte more: what follows are wake-ups.
        result = receive_frame(second.get(), received, body, deadline);
    }
    if (result != StreamResult::done) {
        return failed(describe(result));
    }
    if (!take_reply(body, reply) || !reply.empty()) {
        return failed("the service sent a malformed reply");
    }
    wake.adopt(std::move(second));
    return true;
}

Writer Connection::request(Op op) {
    Writer writer;
    put(writer, RequestHeader{op, ++serial});
    return writer;
}

// Checks the header of a reply, drains what it acknowledges, and leaves the content.
bool Connection::take_reply(std::string_view body, std::string_view &reply) {
    constexpr std::size_t header_bytes = 5;
    Reader reader(body);
    ReplyHeader header;
    get(reader, header);
    if (!reader.ok() || header.serial != serial) {
        return false;
    }
    if (header.drain && !wake.drain_one()) {
        return false;
    }
    reply = body.substr(header_bytes);
    return true;
}

bool Connection::call(const std::string &frame, std::string_view &reply) {
    const Clock::time_point deadline = Clock::now() + limit;
    StreamResult result = send_all(calls.get(), frame, deadline);
    std::string_view body;
    if (result == StreamResult::done) {
        result = receive_frame(calls.get(), received, body, deadline);
    }
    if (result != StreamResult::done) {
        lose(describe(result));
        return false;
    }
    if (!take_reply(body, reply)) {
        malformed();
        return false;
    }
    return true;
}

bool Connection::exchange(Op op, Writer &request, std::string_view &reply) {
    try {
        if (!lost && call(request.finish(), reply)) {
            return true;
        }
    } catch (...) {
        // Out of memory in the middle of a frame: what follows in the stream has no meaning.
        lose("out of memory");
    }
    if (op == Op::watchdog_ping) {
        wake.failed_ping();
    } else if (op == Op::events_get) {
        wake.failed_fetch();
    }
    return false;
}

void Connection::malformed() {
    lose("the service sent a malformed reply");
}

// After this every call fails at once: a reply that comes too late can never be taken for the
// answer of a later call, and the service learns that the client is gone.
void Connection::lose(const char *why) {
    if (lost) {
        return;
    }
    lost = true;
    report(report_lost, "connection to the settings service lost: %s", why);
    calls.reset();
    wake.lose();
}

} // namespace tav
