// One client's two connections to the service: the calls with their time limit, and the wake-up
// connection, whose end is the descriptor. No threads, no signals; every descriptor is
// close-on-exec.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "client/descriptor.h"
#include "client/export.h"
#include "client/read_ahead.h"
#include "client/stream.h"
#include "client/unique_fd.h"
#include "protocol/codec.h"
#include "protocol/protocol.h"

namespace tav {

using Deadline = std::chrono::steady_clock::time_point;

class Connection {
public:
    // Connects to the service at `path` within `limit`, which also holds for each later call. Null
    // when that fails, after reporting why. `read_ahead`: whether calls may be answered from
    // memory.
    static std::unique_ptr<Connection>
    open(const std::string &path, std::chrono::milliseconds limit, bool read_ahead = true);

    int descriptor() const { return wake.get(); }

    // Not known to be lost.
    bool usable() const { return !lost; }

    // A request of this kind with its header; the caller adds the content.
    TAV_EXPORT Writer request(Op op);
    // The serial number of the last request.
    std::uint32_t last_serial() const { return serial; }
    // Sends the request and waits for its reply, whose content (without header) is then in `reply`,
    // valid until the next exchange. False when the connection is lost, now or earlier; the loss is
    // reported once. The request must fit a frame.
    TAV_EXPORT bool exchange(Op op, Writer &request, std::string_view &reply);
    // Ends the connection because of an invalid reply.
    TAV_EXPORT void malformed();
    // Pings the service. There is no reply, and no wait for one, except when a wake-up that the
    // program ignores must be acknowledged. False when the connection is lost, also because the
    // service did not take the last ping within the time limit.
    TAV_EXPORT bool ping();
    // Something from the service has arrived since the last reply, or the connection has ended: the
    // next exchange will find out.
    bool has_arrived() const;
    // A call was answered without the service, which learns of it with the next ping.
    void answered_here() { unannounced = true; }
    // Whether this client has announced a watchdog to the service; decides the answer to a ping.
    bool has_watchdog = false;
    ReadAhead ahead;

private:
    Connection(std::chrono::milliseconds call_limit, bool read_ahead)
        : ahead(read_ahead), limit(call_limit) {}

    bool establish(const std::string &path);
    bool greet(const std::string &path, Writer &greeting, UniqueFd &socket, FrameStream &frames,
               std::string_view &reply, Deadline deadline);
    StreamResult receive(std::string_view &body, Deadline deadline);
    bool call(const std::string &frame, std::string_view &reply);
    bool send_ping();
    bool take_reply(std::string_view body, std::string_view &reply, std::string &why,
                    bool *more = nullptr);
    bool take_rest(std::string_view &reply);
    void lose(const char *why);

    std::chrono::milliseconds limit;
    UniqueFd calls;
    Descriptor wake;
    bool lost = false;
    bool unannounced = false; // calls were answered here since the last message to the service
    std::uint32_t serial = 0;
    FrameStream replies{true};
    Deadline last_ping{};  // when it was sent
    std::string assembled; // the last reply, if it came in several frames
    std::string spare;     // the last request; the next one reuses its memory
};

} // namespace tav

// What the C interface calls a client.
struct mlr_client {
    std::unique_ptr<tav::Connection> connection;
};
