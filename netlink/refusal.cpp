#include "netlink/refusal.h"

#include <algorithm>
#include <cstdint>

#include "netlink/decode.h"
#include "netlink/wire.h"

namespace {

// An error message's payload (struct nlmsgerr): the error, negative, then the request.
constexpr std::size_t request_offset = sizeof(std::int32_t);

} // namespace

boost::optional<refusal_t> decode_refusal(const unsigned char *buffer, int length) {
    const wire::message_walk message(buffer, length);
    if (message.at_end() || message.header().nlmsg_type != NLMSG_ERROR ||
        (message.header().nlmsg_flags & NLM_F_CAPPED) != 0) {
        return boost::none;
    }
    const auto error = message.payload<std::int32_t>();
    if (error >= 0) {
        return boost::none; // an acknowledgement
    }

    refusal_t refusal;
    refusal.error = static_cast<int>(-std::int64_t{error});
    const auto request = message.payload<nlmsghdr>(request_offset);
    refusal.request = request.nlmsg_type;

    // The request alone: what may follow it in the datagram is not part of it.
    constexpr int start = NLMSG_HDRLEN + static_cast<int>(request_offset);
    const auto request_length = static_cast<int>(std::min<std::uint32_t>(
        request.nlmsg_len, static_cast<std::uint32_t>(std::max(length - start, 0))));
    switch (refusal.request) {
    case RTM_NEWADDR:
    case RTM_DELADDR: {
        const auto addrs = decode_addrs(buffer + start, request_length);
        if (addrs.empty()) {
            return boost::none;
        }
        refusal.addr = addrs.front();
        return refusal;
    }
    case RTM_NEWROUTE:
    case RTM_DELROUTE: {
        const auto routes = decode_routes(buffer + start, request_length);
        if (routes.empty()) {
            return boost::none;
        }
        refusal.route = routes.front();
        return refusal;
    }
    default:
        return boost::none;
    }
}
