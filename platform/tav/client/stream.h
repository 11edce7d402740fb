// Moving bytes over a non-blocking stream socket before a deadline. An interrupted wait continues
// for the remaining time.
#pragma once

#include <chrono>
#include <string>
#include <string_view>

#include "client/unique_fd.h"

namespace tav {

// The result of an operation. `timed_out` and `closed` (by the other side) differ only in the
// report; `failed` leaves the reason in errno; `too_large` means a frame beyond the limits.
enum class StreamResult { done, timed_out, closed, failed, too_large };

// Connects to the socket at `path`. Invalid, with errno set, when that fails.
UniqueFd connect_stream(const std::string &path, std::chrono::steady_clock::time_point deadline);

// Sends all of `bytes`, never raising SIGPIPE.
StreamResult send_all(int fd, std::string_view bytes,
                      std::chrono::steady_clock::time_point deadline);

// The frames received on one connection.
class FrameStream {
public:
    // `ahead`: a receive takes all available bytes, so that one is enough for a frame. Otherwise no
    // byte after a frame is received.
    explicit FrameStream(bool ahead) : reads_ahead(ahead) {}

    // Waits for the next frame; `body` is its content, valid until the next call.
    StreamResult receive(int fd, std::string_view &body,
                         std::chrono::steady_clock::time_point deadline);

    // Bytes after that frame have been received.
    bool holds_more() const { return filled > taken; }

private:
    void discard_last();
    void make_room();
    std::string_view arrived() const { return std::string_view(buffer).substr(0, filled); }

    bool reads_ahead;
    std::string buffer;
    std::size_t filled = 0; // bytes of the buffer that were received, ...
    std::size_t taken = 0;  // ... and the frame among them that was returned last
};

// Whether a receive would return at once, be it with bytes, the end of the stream or an error.
bool is_readable(int fd);

// Bytes that were sent but not yet received by the other side; 0 if that is unknown.
std::size_t unread_bytes(int fd);

// A sentence for a report.
const char *describe(StreamResult result);

} // namespace tav
