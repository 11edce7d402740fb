#include "service/peer.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>

namespace tav {

namespace {

constexpr std::size_t read_step = std::size_t{64} << 10;

// A connection without a request keeps little memory.
void release(std::string &buffer) {
    constexpr std::size_t keep_capacity = std::size_t{16} << 10;
    buffer.clear();
    if (buffer.capacity() > keep_capacity) {
        buffer.shrink_to_fit();
    }
}

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
        release(input);
    } else if (consumed > read_step) {
        std::string(input, consumed).swap(input); // the beginning of the next request
        consumed = 0;
    }
}

void Peer::reply(std::string frame) {
    output = std::move(frame);
    sent = 0;
}

bool Peer::flush() {
    while (has_output()) {
        const bool whole = whole_from > 0 && sent >= whole_from;
        const std::size_t end = whole_from > 0 && !whole ? whole_from : output.size();
        const ssize_t done = send_bytes(std::string_view(output).substr(sent, end - sent));
        if (done < 0) {
            return temporary(errno);
        }
        sent += static_cast<std::size_t>(done);
        if (whole && has_output()) {
            return false;
        }
    }
    sent = 0;
    whole_from = 0;
    release(output);
    return true;
}

// With a frame that waits, the notice is sent together with the last byte of it: a Unix socket
// takes so few bytes as a whole, so the client cannot have the frame without the notice.
bool Peer::notify(std::string_view notice) {
    if (has_output()) {
        const std::size_t last = output.size() - 1;
        output.append(notice);
        whole_from = whole_from > 0 ? whole_from : last;
        return true;
    }
    return send_bytes(notice) == static_cast<ssize_t>(notice.size());
}

void Peer::cut() const {
    ::shutdown(socket.get(), SHUT_RDWR);
}

ssize_t Peer::send_bytes(std::string_view bytes) const {
    ssize_t done = 0;
    do {
        done = ::send(socket.get(), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    } while (done < 0 && errno == EINTR);
    return done;
}

bool Peer::send_byte(char byte) const {
    return send_bytes({&byte, 1}) == 1;
}

} // namespace tav
