#include "support/raw_peer.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cstring>
#include <stdexcept>

#include "client/stream.h"
#include "protocol/protocol.h"

namespace tavtest {

using tav::Op;
using tav::Reader;
using tav::Writer;

namespace {

// Blocking, so that a test waits for as long as it takes.
tav::UniqueFd stream_socket() {
    return tav::UniqueFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
}

sockaddr_un address_of(const std::string &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    return address;
}

tav::UniqueFd connected_to(const std::string &path) {
    tav::UniqueFd fd = stream_socket();
    const sockaddr_un address = address_of(path);
    if (::connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        throw std::runtime_error("connect");
    }
    return fd;
}

} // namespace

RawPeer::RawPeer(const std::string &path) : socket(connected_to(path)) {}

bool RawPeer::send(const std::string &bytes) const {
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t done =
            ::send(socket.get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (done <= 0) {
            return false;
        }
        sent += static_cast<std::size_t>(done);
    }
    return true;
}

bool RawPeer::receive_exactly(std::string &to, std::size_t number) {
    to.assign(number, '\0');
    return number == 0 ||
           ::recv(socket.get(), to.data(), number, MSG_WAITALL) == static_cast<ssize_t>(number);
}

std::string RawPeer::receive() {
    std::string length;
    std::string body;
    if (!receive_exactly(length, tav::length_bytes)) {
        return {};
    }
    return receive_exactly(body, Reader(length).u32()) ? body : std::string();
}

std::string RawPeer::farewell() {
    const std::string body = receive();
    Reader reader(body);
    tav::ReplyHeader header;
    tav::Farewell farewell;
    get(reader, header);
    get(reader, farewell);
    if (!reader.finished() || header.serial != tav::farewell_serial) {
        return body.empty() ? "(nothing)" : "(another frame)";
    }
    return receive().empty() ? farewell.reason : "(frames after the farewell)";
}

tav::Ticket RawPeer::greet() {
    send(hello_frame());
    const std::string body = receive();
    Reader reader(body);
    tav::ReplyHeader header;
    tav::Ticket ticket;
    get(reader, header);
    get(reader, ticket);
    return ticket;
}

bool RawPeer::closed() {
    std::string rest(4096, '\0');
    ssize_t got = 0;
    do {
        got = ::recv(socket.get(), rest.data(), rest.size(), 0);
    } while (got > 0);
    return true;
}

std::string request_frame(Op op, const std::function<void(Writer &)> &content) {
    Writer writer;
    put(writer, tav::RequestHeader{op, 1});
    if (content) {
        content(writer);
    }
    return writer.finish();
}

std::string hello_frame() {
    return request_frame(Op::hello, [](Writer &out) {
        put(out, tav::Hello{tav::magic, tav::protocol_version});
    });
}
std::string attach_frame(const tav::Ticket &ticket) {
    return request_frame(Op::attach, [&ticket](Writer &out) {
        put(out, tav::Hello{tav::magic, tav::protocol_version});
        put(out, ticket);
    });
}
std::string path_frame(Op op, const std::string &path) {
    return request_frame(op, [&path](Writer &out) { put(out, path); });
}
std::string read_frame(const std::vector<std::string> &paths) {
    return request_frame(Op::read, [&paths](Writer &out) { put_all(out, paths); });
}
std::string write_frame(const std::vector<tav::Item> &items) {
    return request_frame(Op::transact, [&items](Writer &out) { put_all(out, items); });
}

std::string reply_frame(std::uint32_t serial, bool drain,
                        const std::function<void(Writer &)> &content) {
    Writer writer;
    put(writer, tav::ReplyHeader{serial, drain});
    if (content) {
        content(writer);
    }
    return writer.finish();
}

std::uint32_t serial_of(const std::string &request_body) {
    Reader reader(request_body);
    tav::RequestHeader header;
    get(reader, header);
    return header.serial;
}

RawClient::RawClient(const std::string &path) : calls(path), wake(path) {
    ticket = calls.greet();
    wake.send(attach_frame(ticket));
    wake.receive();
}

tav::UniqueFd listen_at(const std::string &path) {
    tav::UniqueFd fd = stream_socket();
    ::mkdir(path.substr(0, path.rfind('/')).c_str(), 0755);
    const sockaddr_un address = address_of(path);
    if (::bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        ::listen(fd.get(), 8) != 0) {
        throw std::runtime_error("bind");
    }
    return fd;
}

FakeService::FakeService(const std::string &path, Script played)
    : listener(listen_at(path)), script(std::move(played)) {
    thread = std::thread([this] { play(); });
}

FakeService::~FakeService() {
    thread.join();
}

void FakeService::play() {
    RawPeer calls(tav::UniqueFd(::accept(listener.get(), nullptr, nullptr)));
    calls.send(reply_frame(serial_of(calls.receive()), false, [](Writer &out) {
        put(out, tav::Ticket{1, 2});
    }));
    RawPeer wake(tav::UniqueFd(::accept(listener.get(), nullptr, nullptr)));
    wake.send(reply_frame(serial_of(wake.receive()), false));
    script(calls, wake);
}

} // namespace tavtest
