// What a client may send the store's service: bytes in any portions become frames, frames become
// requests, and requests leave a consistent tree.
#include <algorithm>
#include <cstring>
#include <set>

#include <sys/socket.h>

#include "fuzz/fuzz.h"
#include "protocol/history.h"
#include "service/path.h"
#include "service/peer.h"
#include "service/service.h"
#include "service/value_check.h"

namespace {

using fuzz::framed;
using fuzz::number_at;
using fuzz::require;

// The connection: bytes still to be received, bytes sent, and the most bytes that each of the next
// calls moves. After the last of these portions a call moves all bytes.
struct connection_t {
    std::string incoming;
    std::string outgoing;
    std::vector<std::size_t> portions;

    std::size_t portion(std::size_t wanted) {
        if (!portions.empty()) {
            wanted = std::min(wanted, portions.back());
            portions.pop_back();
        }
        return wanted;
    }
};

connection_t &connection() {
    static connection_t instance;
    return instance;
}

} // namespace

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the linker's names.
extern "C" {
ssize_t __wrap_recv(int fd, void *buffer, std::size_t size, int flags);
ssize_t __wrap_send(int fd, const void *buffer, std::size_t size, int flags);

ssize_t __wrap_recv(int, void *buffer, std::size_t size, int) {
    std::string &incoming = connection().incoming;
    const std::size_t given = std::min(connection().portion(size), incoming.size());
    std::memcpy(buffer, incoming.data(), given);
    incoming.erase(0, given);
    return static_cast<ssize_t>(given);
}

ssize_t __wrap_send(int, const void *buffer, std::size_t size, int) {
    const std::size_t taken = connection().portion(size);
    connection().outgoing.append(static_cast<const char *>(buffer), taken);
    return static_cast<ssize_t>(taken);
}
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

namespace {

// The bodies of the frames in a stream, up to its end or a frame that is too large.
std::vector<std::string> bodies(const std::string &stream) {
    std::vector<std::string> found;
    for (std::size_t at = 0; stream.size() - at >= 4;) {
        const std::size_t length = number_at(stream, at);
        if (length > 16777216 || stream.size() - at - 4 < length) {
            break;
        }
        found.push_back(stream.substr(at + 4, length));
        at += 4 + length;
    }
    return found;
}

template <typename Message>
bool is_message(tav::Reader in) {
    Message message;
    tav::get(in, message);
    return in.finished();
}

template <typename Message>
bool are_messages(tav::Reader in) {
    std::vector<Message> messages;
    tav::get_all(in, messages);
    return in.finished();
}

// Lists of events, at least one.
bool are_parts(tav::Reader in) {
    do {
        std::vector<tav::Event> part;
        tav::get_all(in, part);
    } while (in.ok() && !in.finished());
    return in.finished();
}

bool is_listing(tav::Reader in) {
    api_status_t status = api_status_none;
    std::vector<tav::Child> children;
    tav::get(in, status);
    tav::get_all(in, children);
    return in.finished() && (status == api_status_ok || children.empty());
}

// Messages, each after a 1, then another number.
template <typename Message>
bool is_sequence(tav::Reader in) {
    while (in.u8() == 1) {
        Message message;
        tav::get(in, message);
    }
    return in.finished();
}

bool is_dump(tav::Reader in) {
    api_status_t status = api_status_none;
    tav::get(in, status);
    return is_sequence<tav::DumpElement>(in);
}

// Elements, each of which is at most one deeper than the one before and below a node.
bool is_read_ahead(tav::Reader in) {
    api_status_t status = api_status_none;
    tav::get(in, status);
    bool of_node = true;
    unsigned int depth = 0;
    tav::AheadElement element;
    while (status == api_status_ok) {
        tav::get(in, element);
        if (!in.ok() || element.depth == tav::depth_end) {
            break;
        }
        if (element.depth > depth + (of_node ? 1U : 0U) || element.name.empty()) {
            return false;
        }
        depth = element.depth;
        of_node = element.type == element_type_node;
    }
    return in.finished();
}

bool are_statuses_and_number(tav::Reader in) {
    std::vector<api_status_t> statuses;
    tav::get_all(in, statuses);
    in.u64();
    return in.finished();
}

bool is_confirmation(tav::Reader in) {
    api_status_t status = api_status_none;
    tav::get(in, status);
    in.u64();
    return in.finished();
}

// Entries, and the numbers of the oldest and the last one.
bool is_history(tav::Reader in) {
    api_status_t status = api_status_none;
    tav::get(in, status);
    while (status == api_status_ok && in.u8() == 1) {
        tav::HistoryEntry entry;
        tav::get(in, entry);
    }
    if (status == api_status_ok) {
        in.u64();
        in.u64();
    }
    return in.finished();
}

// Whether a reply's content is what the library expects for that kind of request.
bool answers(tav::Op op, const tav::Reader &in) {
    switch (op) {
    case tav::Op::read:
        return are_messages<tav::LeafAnswer>(in);
    case tav::Op::list:
        return is_listing(in);
    case tav::Op::read_ahead:
        return is_read_ahead(in);
    case tav::Op::transact:
        return are_messages<api_status_t>(in);
    case tav::Op::events_get:
        return are_parts(in);
    case tav::Op::event_register:
    case tav::Op::watchdog_register:
    case tav::Op::state_program:
        return is_message<api_status_t>(in);
    case tav::Op::history:
        return is_history(in);
    case tav::Op::wake_acknowledge:
        return in.finished();
    case tav::Op::dump:
        return is_dump(in);
    case tav::Op::status:
        return is_message<tav::ServiceStatus>(in);
    case tav::Op::transact_pending:
        return are_statuses_and_number(in);
    case tav::Op::confirm:
        return is_confirmation(in);
    case tav::Op::pending:
        return is_sequence<tav::PendingChange>(in);
    default:
        return false;
    }
}

void check_reply(const std::string &request, const std::string &frame) {
    const std::vector<std::string> reply = bodies(frame);
    require(reply.size() == 1 && frame.size() == reply[0].size() + 4,
            "a reply is not exactly one frame");
    tav::Reader in(reply[0]);
    require(in.u32() == number_at(request, 1), "a reply with another serial number");
    require(in.u8() <= 1, "a reply with a strange header");
    require(answers(static_cast<tav::Op>(request[0]), in), "a reply of another kind");
}

// Every element's parent is a node before it, the service accepts every path and value, and the
// counts are correct.
void check_tree(const tav::Store &store) {
    std::set<std::string> nodes;
    std::set<std::string> leaves;
    tav::Extent counted;
    walk(store.tree(), "/", [&](const std::string &path, const tav::Element &element) {
        require(tav::check_path(path) == api_status_ok, "an invalid path");
        const std::string parent = path.substr(0, std::max<std::size_t>(path.rfind('/'), 1));
        require(path == "/" || nodes.count(parent) == 1, "an element without its parent");
        require(element.is_node() || tav::check_value(element.value()) == api_status_ok,
                "an invalid value");
        require((element.is_node() ? nodes : leaves).insert(path).second, "an element twice");
        counted.add(*element.content);
        return true;
    });
    const tav::Extent &extent = store.tree().extent();
    require(nodes.size() == extent.nodes, "another number of nodes");
    require(leaves.size() == extent.leaves, "another number of leaves");
    require(counted.bytes == extent.bytes, "another number of bytes");
}

// A client that gets an event for every change.
class onlooker_t {
public:
    explicit onlooker_t(tav::Service &service)
        : session(service.open(tav::Credentials{2, 0, 0, {}}, true)) {
        session.register_events({"/", 1, true}, service.now());
    }
    void check(tav::Service &service) {
        tav::Fetch fetch(session, service.now());
        std::vector<const tav::Event *> part;
        for (bool more = true; more;) {
            more = fetch.advance(part);
            for (const tav::Event *event : part) {
                require(event->command >= 1 && event->command <= 3, "a strange event");
                require(tav::check_path(event->path) == api_status_ok, "an event without a path");
            }
        }
    }

private:
    tav::Session &session;
};

// Whether the frames of a stream are followed by one that is too large.
bool ends_too_large(const std::string &stream) {
    std::size_t at = 0;
    for (const std::string &body : bodies(stream)) {
        at += 4 + body.size();
    }
    return stream.size() - at >= 4 && number_at(stream, at) > 16777216;
}

// Serves the stream as the service's loop does. Returns the requests that were read from it.
std::vector<std::string> serve(const std::string &stream, tav::Peer &peer, tav::Service &service,
                               tav::Session &session) {
    std::vector<std::string> taken;
    while (peer.receive()) {
        std::string_view body;
        tav::FrameState state = tav::FrameState::incomplete;
        while ((state = peer.request(body)) == tav::FrameState::complete) {
            taken.emplace_back(body);
            std::string reply;
            if (!service.handle(session, body, reply)) {
                return taken;
            }
            const auto kind = static_cast<tav::Op>(taken.back()[0]);
            if (kind == tav::Op::watchdog_ping || kind == tav::Op::ping_after_answers) {
                require(reply.empty(), "an answer to a ping");
            } else {
                check_reply(taken.back(), reply);
            }
            peer.consume(body);
            connection().outgoing.clear();
            peer.reply(reply);
            require(peer.flush() && !peer.has_output(), "a reply that was not sent");
            require(connection().outgoing == reply, "another reply was sent");
        }
        if (state == tav::FrameState::too_large) {
            require(ends_too_large(stream), "a frame was found too large");
            return taken;
        }
    }
    require(!ends_too_large(stream), "a frame that is too large was waited for");
    return taken;
}

} // namespace

// An input is the size of the portions and a stream: as it is, or, with the highest bit of the
// first byte, as bodies with their lengths in two bytes, which are made into frames.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    fuzz::input_t input(data, size);
    const unsigned head = input.byte();
    std::string stream;
    if ((head & 0x80U) == 0) {
        stream = input.rest();
    }
    while (!input.empty()) {
        stream += framed(input.bytes(input.number()));
    }
    connection() = {stream, {}, {}};
    if ((head & 0x7fU) != 0) {
        connection().portions = {1, 1, 7, head & 0x7fU};
    }

    static std::int64_t milliseconds = 0;
    tav::Store store;
    tav::Service service(store, "",
                         [] { return tav::Time(std::chrono::milliseconds(++milliseconds)); });
    onlooker_t onlooker(service);
    tav::Peer peer{tav::UniqueFd(), tav::Credentials{}, true, tav::Time{}};
    const std::vector<std::string> taken =
        serve(stream, peer, service, service.open(tav::Credentials{1, 0, 0, {}}, true));

    const std::vector<std::string> expected = bodies(stream);
    require(taken.size() <= expected.size() &&
                std::equal(taken.begin(), taken.end(), expected.begin()),
            "other requests than were sent");
    // Fewer are taken only when one of them was refused, which ends the connection.
    require(taken.size() == expected.size() || !connection().incoming.empty() || peer.held() > 0,
            "a request was not taken");
    onlooker.check(service);
    check_tree(store);
    return 0;
}
