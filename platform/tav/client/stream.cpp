#include "client/stream.h"

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
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
            return true; // the next operation reports any error
        }
        if (left == 0) {
            return false;
        }
    }
}

bool again(int error) {
    return error == EAGAIN || error == EWOULDBLOCK;
}

// The bytes still missing of a frame that has partly arrived: of its length field, or of its body.
std::size_t missing_bytes(std::string_view beginning) {
    if (beginning.size() < length_bytes) {
        return length_bytes - beginning.size();
    }
    return length_bytes + Reader(beginning).u32() - beginning.size();
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

// The buffer keeps its memory, except after a rare large frame.
void FrameStream::discard_last() {
    constexpr std::size_t keep = std::size_t{256} << 10;
    buffer.erase(0, taken);
    filled -= taken;
    taken = 0;
    if (filled == 0 && buffer.size() > keep) {
        buffer.clear();
        buffer.shrink_to_fit();
    }
}

// Grows the buffer with the bytes that arrive, not by the announced length.
void FrameStream::make_room() {
    constexpr std::size_t least = 4096;
    if (filled == buffer.size()) {
        buffer.resize(std::max(least, 2 * buffer.size()));
    }
}

StreamResult FrameStream::receive(int fd, std::string_view &body, Clock::time_point deadline) {
    discard_last();
    FrameState state = FrameState::incomplete;
    // Wait with poll: a blocking receive would also be woken when the other side reads the request.
    bool wait = true;
    while ((state = next_frame(arrived(), body)) == FrameState::incomplete) {
        if (wait && !wait_for(fd, POLLIN, deadline)) {
            return StreamResult::timed_out;
        }
        make_room();
        const std::size_t room = buffer.size() - filled;
        const std::size_t wanted = reads_ahead ? room : std::min(room, missing_bytes(arrived()));
        const ssize_t got = ::recv(fd, &buffer[filled], wanted, MSG_DONTWAIT);
        if (got == 0 || (got < 0 && errno == ECONNRESET)) {
            return StreamResult::closed;
        }
        if (got < 0 && !again(errno) && errno != EINTR) {
            return StreamResult::failed;
        }
        wait = got < 0;
        filled += got > 0 ? static_cast<std::size_t>(got) : 0;
    }
    if (state == FrameState::too_large) {
        return StreamResult::too_large;
    }
    taken = length_bytes + body.size();
    return StreamResult::done;
}

bool is_readable(int fd) {
    char byte = 0;
    return ::recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) >= 0 || !again(errno);
}

std::size_t unread_bytes(int fd) {
    int bytes = 0;
    return ::ioctl(fd, SIOCOUTQ, &bytes) == 0 && bytes > 0 ? static_cast<std::size_t>(bytes) : 0;
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
        return "the service sent a message that is too large";
    case StreamResult::done:
        break;
    }
    return "done";
}

} // namespace tav
