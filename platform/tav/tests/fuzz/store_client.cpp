// What a service may send the store's client library: frames in any portions, replies of any
// content. Each call either returns exactly the content of the reply or fails, and after a failure
// every call fails. Or a service that behaves, with a tree that changes at any time: no call
// returns an older state of it.
#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <deque>
#include <map>

#include <poll.h>
#include <sys/socket.h>

#include <tav/toolkit.h>

#include "client/admin.h"
#include "fuzz/fuzz.h"

namespace {

using fuzz::number_at;
using fuzz::require;

// Numbers that no real descriptor has. The first socket is for the calls, the second for the
// wake-ups; a third descriptor replaces the second once the connection is lost.
constexpr int calls_fd = 100001;
constexpr int wake_fd = 100002;
constexpr int standin_fd = 100003;

// One reply from the input.
struct reply_t {
    bool well_formed = true; // its content is put into a frame with the right serial number
    bool drain = false;      // the header says that a wake-up byte must be read
    std::string wake;        // bytes on the wake-up connection by then
    std::string bytes;       // the content, or all bytes of the reply
};

struct service_t {
    int sockets = 0;
    std::size_t portion = 1;
    std::string request;      // received so far
    std::uint32_t serial = 0; // of the last complete one
    std::string calls;        // on their way to the client, on each connection
    std::string wake;
    std::deque<reply_t> replies; // to the coming requests

    // Of a service that behaves; its requests are answered from these.
    bool behaves = false;
    std::map<std::string, std::string> leaves; // of the node /a
    std::uint32_t held = 0;                    // the serial number of a read-ahead; 0: none
    std::string change;                        // before the next request is answered
    bool asked = false;                        // a request has come
    tav::Op last{};                            // request
};

service_t &service() {
    static service_t instance;
    return instance;
}

std::string frame_of(const reply_t &reply, std::uint32_t serial) {
    return reply.well_formed
               ? fuzz::framed(fuzz::big_endian(serial) + (reply.drain ? '\1' : '\0') + reply.bytes)
               : reply.bytes;
}

// Sets one leaf to one of two values, or removes it.
void change_tree(std::uint8_t how) {
    const std::string name(1, static_cast<char>('a' + how % 3));
    service().leaves.erase(name);
    if (how / 3 % 3 != 0) {
        service().leaves[name] = how / 3 % 3 == 1 ? "one" : "another";
    }
    if (service().held != 0) {
        tav::Writer notice;
        put(notice, tav::ReplyHeader{service().held, false, false, true});
        service().calls += notice.finish();
        service().held = 0;
    }
}

tav::LeafAnswer proper_answer(const std::string &path) {
    const auto leaf = service().leaves.find(path.substr(3));
    return leaf == service().leaves.end()
               ? tav::LeafAnswer{api_status_absent, {}}
               : tav::LeafAnswer{api_status_ok, {element_type_string, leaf->second, 7}};
}

void behave(std::string &connection, const std::string &body) {
    tav::Reader in(body);
    tav::RequestHeader header;
    get(in, header);
    service().last = header.op;
    if (header.op == tav::Op::watchdog_ping || header.op == tav::Op::ping_after_answers) {
        return;
    }
    service().asked = true;
    for (const char how : service().change) {
        change_tree(static_cast<std::uint8_t>(how));
    }
    service().change.clear();
    tav::Writer out;
    put(out, tav::ReplyHeader{header.serial, false});
    if (header.op == tav::Op::read) {
        std::vector<std::string> paths;
        get_all(in, paths);
        std::vector<tav::LeafAnswer> answers;
        std::transform(paths.begin(), paths.end(), std::back_inserter(answers), proper_answer);
        put_all(out, answers);
    } else if (header.op == tav::Op::list) {
        std::vector<tav::Child> children;
        for (const auto &[name, text] : service().leaves) {
            children.push_back({name, element_type_string});
        }
        put(out, api_status_ok);
        put_all(out, children);
    } else {
        require(header.op == tav::Op::read_ahead, "a strange request");
        service().held = header.serial;
        put(out, api_status_ok);
        for (const auto &[name, text] : service().leaves) {
            put(out, tav::AheadElement{1, name, element_type_string, text, 7});
        }
        put(out, tav::AheadElement{});
    }
    connection += out.finish();
}

// Answers each complete request except pings.
void serve(std::string &connection) {
    std::string &request = service().request;
    while (service().behaves && service().replies.empty() && request.size() >= 4 &&
           request.size() - 4 >= number_at(request, 0)) {
        const std::string body = request.substr(4, number_at(request, 0));
        request.erase(0, 4 + body.size());
        behave(connection, body);
    }
    while (request.size() >= 4 && request.size() - 4 >= number_at(request, 0)) {
        require(number_at(request, 0) >= 5, "a request without a header");
        service().serial = number_at(request, 5);
        const bool is_ping = static_cast<tav::Op>(request[4]) == tav::Op::watchdog_ping;
        request.erase(0, 4 + number_at(request, 0));
        if (!is_ping && !service().replies.empty()) {
            const reply_t reply = service().replies.front();
            service().replies.pop_front();
            connection += frame_of(reply, service().serial);
            service().wake += reply.wake;
        }
    }
}

std::string &stream_of(int fd) {
    return fd == calls_fd ? service().calls : service().wake;
}

} // namespace

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the linker's names.
extern "C" {
int __real_close(int fd);
ssize_t __real_read(int fd, void *buffer, std::size_t size);
int __wrap_socket(int domain, int type, int protocol);
int __wrap_connect(int fd, const sockaddr *address, socklen_t length);
int __wrap_eventfd(unsigned value, int flags);
int __wrap_dup3(int from, int to, int flags);
int __wrap_close(int fd);
int __wrap_poll(pollfd *entries, nfds_t number, int timeout);
ssize_t __wrap_read(int fd, void *buffer, std::size_t size);
ssize_t __wrap_recv(int fd, void *buffer, std::size_t size, int flags);
ssize_t __wrap_send(int fd, const void *buffer, std::size_t size, int flags);

int __wrap_socket(int, int, int) {
    return service().sockets++ == 0 ? calls_fd : wake_fd;
}
int __wrap_connect(int, const sockaddr *, socklen_t) {
    return 0;
}
int __wrap_eventfd(unsigned, int) {
    return standin_fd;
}
int __wrap_dup3(int, int to, int) {
    return to;
}
int __wrap_close(int fd) {
    return fd >= calls_fd ? 0 : __real_close(fd);
}
int __wrap_poll(pollfd *, nfds_t number, int) {
    return static_cast<int>(number);
}
ssize_t __wrap_read(int fd, void *buffer, std::size_t size) {
    return fd >= calls_fd ? -1 : __real_read(fd, buffer, size);
}

// When no bytes are left, the service has closed the connection.
ssize_t __wrap_recv(int fd, void *buffer, std::size_t size, int flags) {
    std::string &stream = stream_of(fd);
    if (service().behaves && stream.empty() && (flags & MSG_PEEK) != 0) {
        errno = EAGAIN;
        return -1;
    }
    const std::size_t given = std::min({size, service().portion, stream.size()});
    std::memcpy(buffer, stream.data(), given);
    stream.erase(0, (flags & MSG_PEEK) != 0 ? 0 : given);
    return static_cast<ssize_t>(given);
}

ssize_t __wrap_send(int fd, const void *buffer, std::size_t size, int) {
    service().request.append(static_cast<const char *>(buffer), size);
    serve(stream_of(fd));
    return static_cast<ssize_t>(size);
}

void mlr_err(unsigned, const char *format, ...) {
    char text[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
}
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

namespace {

std::string described(const tav::Value &value) {
    return std::to_string(value.type) + " " + value.text + " " + std::to_string(value.time) + "\n";
}

const char *const failure = "failed";

// What the library must know about its connection.
struct client_t {
    bool lost = false;
    bool has_watchdog = false;
    bool found = false;    // the last ping found a wake-up byte, and there was no fetch since
    std::string remainder; // arrived after the last reply
};

// Removes the first frame from the received bytes; the bytes after it precede the next reply.
void take_frame(client_t &client, const std::string &bytes) {
    const std::size_t frame =
        bytes.size() < 4 ? bytes.size() : 4 + std::size_t{number_at(bytes, 0)};
    client.remainder = bytes.substr(std::min(frame, bytes.size()));
}

// The content of the reply that the library must see; empty if the connection is lost.
bool content_of(const reply_t &reply, const std::string &bytes, std::uint32_t serial,
                const std::string &wake_before, std::string &content) {
    if (bytes.size() < 4) {
        return false;
    }
    const std::size_t length = number_at(bytes, 0);
    const std::string wake = wake_before + reply.wake;
    if (length > 16777216 || length < 5 || bytes.size() - 4 < length ||
        number_at(bytes, 4) != serial || static_cast<unsigned char>(bytes[8]) > 1 ||
        (bytes[8] == 1 && wake.substr(0, 1) != "w")) {
        return false;
    }
    content = bytes.substr(9, length - 5);
    return true;
}

// The calls, by number; each returns its result as text.
enum call_t {
    get_leaves,
    list_node,
    set_leaves,
    remove_node,
    event_register,
    events_get,
    watchdog_register,
    watchdog_ping,
    dump,
    status,
    calls_in_all
};

using Paths = std::vector<tk_string>;
const Paths two_paths(2, "/a");

std::string statuses_text(const std::vector<api_status_t> &statuses) {
    std::string text;
    for (const api_status_t one : statuses) {
        text += std::to_string(one) + "\n";
    }
    return text;
}

std::string call_leaves(toolkit::CTav &tav, bool write, const Paths &paths = two_paths) {
    const std::vector<mlr_tribool_t> flags(paths.size(), mlr_tribool_unset);
    std::vector<api_status_t> statuses;
    std::vector<toolkit::CElement> values(paths.size(), toolkit::CElement("x", -1));
    std::vector<element_property_t> properties;
    const int result = write ? tav.set_leaves(paths, values, flags, statuses, "")
                             : tav.get_leaves(paths, statuses, values, properties);
    require(statuses.size() == paths.size(), "not one status for each path");
    if (result != 0) {
        require(statuses == std::vector<api_status_t>(paths.size()), "a status of a failed call");
        return failure;
    }
    std::string text = statuses_text(statuses);
    for (std::size_t i = 0; i < values.size() && !write; ++i) {
        text += statuses[i] != 1
                    ? "\n"
                    : described({values[i].type(), values[i].to_string(), values[i].time()});
    }
    return text;
}

std::string call(toolkit::CTav &tav, call_t which) {
    api_status_t one = api_status_none;
    int result = 0;
    std::string text;
    std::vector<toolkit::child_t> children;
    std::vector<toolkit::CEvent> events;
    std::vector<tav::DumpElement> elements;
    tav::ServiceStatus service_status;
    switch (which) {
    case get_leaves:
    case set_leaves:
        return call_leaves(tav, which == set_leaves);
    case list_node:
        result = tav.list_node("/a", one, children);
        for (const toolkit::child_t &child : children) {
            text += child.first + " " + std::to_string(child.second.first) + "\n";
        }
        break;
    case remove_node:
        result = tav.remove_node("/a", one, "");
        break;
    case event_register:
        result = tav.event_register("/a", api_event_change, false, one);
        break;
    case events_get:
        result = tav.events_get(events);
        require(result < 0 ? events.empty() : result == static_cast<int>(events.size()),
                "another number of events");
        for (const toolkit::CEvent &event : events) {
            text += std::to_string(event.command) + " " + event.path + "\n";
        }
        return result < 0 ? failure : text;
    case watchdog_register:
        result = tav.watchdog_register(one, "x", 60, true);
        break;
    case watchdog_ping:
        result = tav.watchdog_ping(one);
        break;
    case dump:
        result = tav::dump(tav.handle, "/a", one, elements);
        for (const tav::DumpElement &element : elements) {
            text += element.path + " " + described(element.value);
        }
        break;
    default:
        return tav::service_status(tav.handle, service_status) == 0 ? "done" : failure;
    }
    require(result == 0 || one == api_status_none, "a status of a failed call");
    require(result == 0 || (children.empty() && elements.empty()), "a listing of a failed call");
    return result == 0 ? std::to_string(one) + "\n" + text : failure;
}

template <typename Message>
std::vector<Message> messages(tav::Reader &in) {
    std::vector<Message> all;
    get_all(in, all);
    return all;
}

std::string leaves_text(const std::vector<tav::LeafAnswer> &answers) {
    std::vector<api_status_t> statuses;
    std::string values;
    for (const tav::LeafAnswer &answer : answers) {
        statuses.push_back(answer.status);
        values += answer.status == api_status_ok ? described(answer.value) : "\n";
    }
    return statuses_text(statuses) + values;
}

// For dump and status, which need more than one reply or return much, only the failure is
// predicted.
std::string expected(call_t which, const std::string &bytes) {
    tav::Reader in(bytes);
    std::string text;
    std::size_t answers = two_paths.size();
    if (which == get_leaves) {
        const auto all = messages<tav::LeafAnswer>(in);
        answers = all.size();
        text = leaves_text(all);
    } else if (which == set_leaves || which == remove_node) {
        const auto all = messages<api_status_t>(in);
        answers = all.size() + (which == remove_node ? 1 : 0);
        text = statuses_text(all);
    } else if (which == events_get) {
        do {
            for (const tav::Event &event : messages<tav::Event>(in)) {
                text += std::to_string(event.command) + " " + event.path + "\n";
            }
        } while (in.ok() && !in.finished());
        text = text.empty() ? "1 \n" : text;
    } else {
        api_status_t status = api_status_none;
        get(in, status);
        text = std::to_string(status) + "\n";
        if (which == list_node) {
            for (const tav::Child &child : messages<tav::Child>(in)) {
                text += child.name + " " + std::to_string(child.type) + "\n";
            }
        }
    }
    return in.finished() && answers == two_paths.size() ? text : failure;
}

// A ping has no reply, but the second one in a row that finds a wake-up byte acknowledges it.
bool is_answered(client_t &client, call_t which, bool readable) {
    if (which == events_get) {
        client.found = false;
    }
    if (which != watchdog_ping) {
        return true;
    }
    const bool again = readable && client.found;
    client.found = readable && !again;
    return again;
}

std::string expected_of_ping(const client_t &client, bool answered, bool there,
                             const std::string &content) {
    const bool fine = !answered || (there && content.empty());
    return !fine ? failure : client.has_watchdog ? "1\n" : "2\n";
}

void check_call(toolkit::CTav &tav, call_t which, const reply_t &reply, client_t &client) {
    service().replies = {reply};
    const std::string wake_before = service().wake;
    const std::string text = call(tav, which);
    if (client.lost) {
        fuzz::require_same(text, failure, "a call on a lost connection");
        return;
    }
    const bool answered = is_answered(client, which, !wake_before.empty());
    std::string content;
    bool there = false;
    if (answered) {
        const std::string bytes = client.remainder + frame_of(reply, service().serial);
        there = content_of(reply, bytes, service().serial, wake_before, content);
        take_frame(client, bytes);
    }
    if (which == dump || which == status) {
        require(there || text == failure, "a call without an answer");
        client.lost = text == failure;
        return;
    }
    const std::string wanted = which == watchdog_ping
                                   ? expected_of_ping(client, answered, there, content)
                               : there ? expected(which, content)
                                       : failure;
    fuzz::require_same(text, wanted, "the reply was taken otherwise");
    client.lost = wanted == failure;
    if (which == watchdog_register && wanted == "1\n") {
        client.has_watchdog = true;
    }
}

reply_t take_reply(fuzz::input_t &input) {
    const unsigned flags = input.byte();
    reply_t reply;
    reply.well_formed = (flags & 1U) == 0;
    reply.drain = (flags & 2U) != 0;
    reply.wake = (flags & 4U) != 0 ? "w" : (flags & 8U) != 0 ? "x" : "";
    reply.bytes = input.bytes(input.number());
    return reply;
}

// One call on a service that behaves, unless it is `spoiled`. False if it failed.
bool check_current(toolkit::CTav &tav, fuzz::input_t &input, bool list, bool spoiled) {
    std::string found;
    std::string wanted;
    if (list) {
        found = call(tav, list_node);
        wanted = "1\n";
        for (const auto &[name, text] : service().leaves) {
            wanted += name + " 6\n";
        }
    } else {
        Paths paths(1 + input.byte() % 2U, "/a/b");
        paths[0] = std::string("/a/") + static_cast<char>('a' + input.byte() % 3U);
        found = call_leaves(tav, false, paths);
        std::vector<tav::LeafAnswer> answers;
        std::transform(paths.begin(), paths.end(), std::back_inserter(answers), proper_answer);
        wanted = leaves_text(answers);
    }
    if (!spoiled && found != failure) {
        fuzz::require_same(found, wanted, "another state than the present one");
    }
    return found != failure;
}

// A ping says whether calls were answered from memory since the last message.
bool check_ping(toolkit::CTav &tav, bool from_memory, bool spoiled) {
    api_status_t status = api_status_none;
    const bool fine = tav.watchdog_ping(status) == 0;
    const tav::Op wanted = from_memory ? tav::Op::ping_after_answers : tav::Op::watchdog_ping;
    require(spoiled || !fine || service().last == wanted, "the ping is of the wrong kind");
    return fine;
}

void check_memory(toolkit::CTav &tav, fuzz::input_t &input) {
    bool spoiled = false;
    bool lost = false;
    bool from_memory = false;
    while (!input.empty()) {
        const unsigned int what = input.byte() % 16U;
        bool fine = true;
        service().asked = false;
        if (what < 4) {
            change_tree(input.byte());
            continue;
        }
        if (what < 6) {
            service().change.push_back(static_cast<char>(input.byte()));
            continue;
        }
        if (what == 6) {
            service().calls += input.bytes(input.byte());
            spoiled = true;
            continue;
        }
        if (what == 7) {
            fine = check_ping(tav, from_memory, spoiled);
            from_memory = false;
        } else {
            fine = check_current(tav, input, what < 11, spoiled);
            from_memory = !service().asked;
        }
        require(spoiled || fine, "a call failed");
        require(!lost || !fine, "a call on a lost connection");
        lost = !fine;
    }
}

} // namespace

// An input is the size of the portions, then calls: which, flags, length and bytes of the reply. If
// the highest bit of the first byte is set, the two replies to connecting also come from the input.
// With the next bit it is what happens with a service that behaves.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    fuzz::input_t input(data, size);
    const unsigned head = input.byte();
    service() = {};
    service().behaves = (head & 0xc0U) == 0x40U;
    service().portion = (head & 0x3fU) == 0 ? 65536 : head & 0x3fU;
    const bool from_input = (head & 0x80U) != 0;
    ::setenv("TAV_READ_AHEAD", service().behaves ? "1" : "0", 1);
    if (from_input) {
        service().replies = {take_reply(input), take_reply(input)};
    } else {
        service().replies = {{true, false, "", std::string(16, 't')}, {true, false, "", ""}};
    }
    const std::string hello = frame_of(service().replies.front(), 1);
    toolkit::CTav tav(mlr_init());
    client_t client;
    client.lost = tav.handle == nullptr;
    require(!client.lost || from_input, "could not connect");
    take_frame(client, hello);
    service().wake.clear();
    if (service().behaves) {
        check_memory(tav, input);
    }
    while (!input.empty()) {
        const auto which = static_cast<call_t>(input.byte() % calls_in_all);
        check_call(tav, which, take_reply(input), client);
    }
    mlr_close(tav.handle);
    return 0;
}
