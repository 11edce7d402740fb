// Moving bytes over a non-blocking stream socket before a deadline. An interrupted wait goes on
// with what is left of the time.
#ifndef TAV_CLIENT_STREAM_H
#define TAV_CLIENT_STREAM_H

#include <chrono>
#include <string>
#include <string_view>

#include "client/unique_fd.h"

namespace tav {

// What became of it. `timed_out` and `closed` (by the other side) are told apart only for the
// report; `failed` leaves the reason in errno, `too_large` is a frame beyond the limits.
enum class StreamResult { done, timed_out, closed, failed, too_large };

// Connects to the socket at `path`. Invalid, with errno set, when that fails.
UniqueFd connect_stream(const std::string &path, std::chrono::steady_clock::time_point deadline);

// Sends all of `bytes`, never raising SIGPIPE.
StreamResult send_all(int fd, std::string_view bytes,
                      std::chrono::steady_clock::time_point deadline);

// Receives exactly one frame into `buffer` (which it replaces); `body` is its content. Bytes behind
// the frame are not read.
StreamResult receive_frame(int fd, std::string &buffer, std::string_view &body,
                           std::chrono::steady_clock::time_point deadline);

// A sentence for a report.
const char *describe(StreamResult result);

} // namespace tav

#endif
