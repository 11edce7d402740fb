#include "service/peer.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>

namespace tav {

namespace {

constexpr std::size_t read_step = std::size_t{64} << 10;

bool temporary(int error) {
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

} // namespace

bool Peer::receive() {
    // Shared by all connections, so that a connection uses memory only for what it has received.
    static std::array<char, read_step> buffer;
    const ssize_t got = ::recv(socket.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (got <= 0) {
        return got < 0 && temporary(errno);
    }
    input.erase(0, consumed);
    consumed = 0;
    input.append(buffer.data(), static_cast<std::size_t>(got));
    return true;
}

bool Peer::has_request() const {
    std::string_view body;
    return request(body) != FrameState::incomplete;
}

FrameState Peer::request(std::string_view &body) const {
    return next_frame(std::string_view(input).substr(consumed), body);
}

void Peer::consume(std::string_view body) {
    consumed += length_bytes + body.size();
    if (consumed == input.size()) {
        consumed = 0;
        recycle(input);
    }
}

void Peer::reply(std::string frame) {
    output = std::move(frame);
    sent = 0;
}

bool Peer::flush() {
    while (has_output()) {
        const ssize_t done = ::send(socket.get(), output.data() + sent, output.size() - sent,
                                    MSG_DONTWAIT | MSG_NOSIGNAL);
        if (done < 0) {
            return temporary(errno);
        }
        sent += static_cast<std::size_t>(done);
    }
    sent = 0;
    recycle(output);
    return true;
}

bool Peer::send_byte(char byte) const {
    ssize_t done = 0;
    do {
        done = ::send(socket.get(), &byte, 1, MSG_DONTWAIT | MSG_NOSIGNAL);
    } while (done < 0 && errno == EINTR);
    return done == 1;
}

} // namespace tav
