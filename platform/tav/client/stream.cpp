#include "client/stream.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "protocol/codec.h"
#include "protocol/protocol.h"

namespace tav {

namespace {

using Clock = std::chrono::steady_clock;

// Milliseconds until the deadline, rounded up, so that a wait never ends just before it.
int remaining(Clock::time_point deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return static_cast<int>(std::clamp<long long>(left, 0, 1000000));
}

// Waits for `events`; false when the deadline passed.
bool wait_for(int fd, short events, Clock::time_point deadline) {
    for (;;) {
        pollfd entry{fd, events, 0};
        const int left = remaining(deadline);
        const int ready = ::poll(&entry, 1, left);
        if (ready > 0 || (ready < 0 && errno != EINTR)) {
            return true; // whatever it is, the next operation will tell
        }
        if (left == 0) {
            return false;
        }
    }
}

bool again(int error) {
    return error == EAGAIN || error == EWOULDBLOCK;
}

// Receives exactly `wanted` bytes behind what `buffer` holds. Grows the buffer with what arrives,
// not with what is announced.
StreamResult receive_exactly(int fd, std::string &buffer, std::size_t wanted,
                             Clock::time_point deadline) {
    constexpr std::size_t step = std::size_t{256} << 10;
    while (wanted > 0) {
        const std::size_t before = buffer.size();
        const std::size_t room = std::min(wanted, step);
        buffer.resize(before + room);
        const ssize_t got = ::recv(fd, &buffer[before], room, MSG_DONTWAIT);
        const int error = errno;
        buffer.resize(before + (got > 0 ? static_cast<std::size_t>(got) : 0));
        if (got > 0) {
            wanted -= static_cast<std::size_t>(got);
        } else if (got == 0 || (got < 0 && error == ECONNRESET)) {
            return StreamResult::closed;
        } else if (again(error)) {
            if (!wait_for(fd, POLLIN, deadline)) {
                return StreamResult::timed_out;
            }
        } else if (error != EINTR) {
            errno = error;
            return StreamResult::failed;
        }
    }
    return StreamResult::done;
}

} // namespace

UniqueFd connect_stream(const std::string &path, Clock::time_point deadline) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return {};
    }
    std::memcpy(address.sun_path, path.data(), path.size());

    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd.valid()) {
        return {};
    }
    for (;;) {
        if (::connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) ==
            0) {
            return fd;
        }
        // A service with a full backlog cannot be waited for with poll.
        if (errno != EINTR && !again(errno)) {
            return {};
        }
        if (remaining(deadline) == 0) {
            errno = ETIMEDOUT;
            return {};
        }
        ::poll(nullptr, 0, std::min(10, remaining(deadline)));
    }
}

StreamResult send_all(int fd, std::string_view bytes, Clock::time_point deadline) {
    while (!bytes.empty()) {
        const ssize_t sent = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent >= 0) {
            bytes.remove_prefix(static_cast<std::size_t>(sent));
        } else if (again(errno)) {
            if (!wait_for(fd, POLLOUT, deadline)) {
                return StreamResult::timed_out;
            }
        } else if (errno == EPIPE || errno == ECONNRESET) {
            return StreamResult::closed;
        } else if (errno != EINTR) {
            return StreamResult::failed;
        }
    }
    return StreamResult::done;
}

StreamResult receive_frame(int fd, std::string &buffer, std::string_view &body,
                           Clock::time_point deadline) {
    recycle(buffer);
    // A receive that waits by itself is woken once more, when the other side takes the request.
    if (!wait_for(fd, POLLIN, deadline)) {
        return StreamResult::timed_out;
    }
    StreamResult result = receive_exactly(fd, buffer, length_bytes, deadline);
    if (result != StreamResult::done) {
        return result;
    }
    Reader length(buffer);
    const std::size_t announced = length.u32();
    if (next_frame(buffer, body) == FrameState::too_large) {
        return StreamResult::too_large;
    }
    result = receive_exactly(fd, buffer, announced, deadline);
    if (result == StreamResult::done) {
        next_frame(buffer, body);
    }
    return result;
}

const char *describe(StreamResult result) {
    switch (result) {
    case StreamResult::timed_out:
        return "the service did not answer in time";
    case StreamResult::closed:
        return "the service closed the connection";
    case StreamResult::failed:
        return std::strerror(errno); // NOLINT(concurrency-mt-unsafe): no threads here
    case StreamResult::too_large:
        return "the service sent an oversized frame";
    case StreamResult::done:
        break;
    }
    return "done";
}

} // namespace tav
