// One accepted connection: bytes in, bytes out.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "client/unique_fd.h"
#include "protocol/codec.h"
#include "protocol/protocol.h"
#include "service/access.h"
#include "service/schedule.h"
#include "service/task.h"
#include "service/wake.h"

namespace tav {

class Peer {
public:
    enum class Role {
        stranger, // has not sent its first frame
        calls,    // a client's connection for calls
        wake,     // a client's wake-up connection: the client sends nothing more on it
    };

    Peer(UniqueFd connected, Credentials other, bool writer, Time now)
        : who(std::move(other)), may_write(writer), accepted(now), socket(std::move(connected)) {}
    ~Peer() { task.reset(); } // its request is in the input
    Peer(const Peer &) = delete;
    Peer &operator=(const Peer &) = delete;

    int fd() const { return socket.get(); }

    // Reads the available bytes, a bounded number at a time. False when the connection is over.
    bool receive();
    // The next complete request; FrameState::too_large ends the connection. `body` is valid until
    // consume().
    FrameState request(std::string_view &body) const;
    void consume(std::string_view body);
    // There is a complete request, or one that is too large.
    bool has_request() const;
    // Bytes of requests that were received, and of a reply that was not sent completely. A part of
    // either uses memory until all of it is released.
    std::size_t held() const { return input.size() + output.size(); }
    // A client's connection that is ready for use.
    bool established() const { return attached || role == Role::wake; }

    // Queues a frame. There is at most one: the rest of the answer and further requests wait until
    // it was sent, so that a client that does not read its replies uses memory for only one.
    void reply(std::string frame);
    // A buffer for building the next reply, if no reply is waiting to be sent.
    std::string take_buffer() { return std::exchange(output, {}); }
    bool has_output() const { return sent < output.size(); }
    // Sends as much as possible. False when the connection is over.
    bool flush();
    // Sends a notice before the client can receive anything that is sent later, and before it can
    // have received all of what is waiting. False when that is impossible.
    bool notify(std::string_view notice);
    // Ends the connection for the other side at once, without destroying the object.
    void cut() const;
    // Sends one byte at once, ahead of the queue. False when the connection is over or blocked.
    bool send_byte(char byte) const;

    const Credentials who;
    const bool may_write;
    const Time accepted;
    Role role = Role::stranger;
    std::uint64_t session = 0; // 0: none
    bool attached = false;     // for a connection for calls: the wake-up connection exists
    // Of the request at work; its body is the next one in the input, and nothing is received
    // meanwhile.
    std::unique_ptr<Task> task;
    Time::duration spent{}; // on it
    Schedule::Kind kind() const {
        return spent < Schedule::longest_turn(Schedule::Kind::brief) ? Schedule::Kind::brief
                                                                     : Schedule::Kind::lengthy;
    }
    std::optional<Time> unsent_since; // when its answer could not be sent at once
    std::uint32_t watched = 0;        // for these events of epoll
    std::size_t accounted = 0;        // the bytes held that its user was charged for

private:
    ssize_t send_bytes(std::string_view bytes) const;

    UniqueFd socket;
    std::string input;
    std::size_t consumed = 0;
    std::string output;
    std::size_t sent = 0;
    std::size_t whole_from = 0; // the rest of the output from here is sent at once; 0: none
};

} // namespace tav
