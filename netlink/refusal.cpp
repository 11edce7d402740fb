#include "netlink/refusal.h"

#include <algorithm>
#include <cstdint>

#include "netlink/decode.h"

namespace {

// An error message's payload (struct nlmsgerr): the error, negative, then the request.
constexpr std::size_t request_offset = sizeof(std::int32_t);

} // namespace

boost::optional<refusal_t> decode_refusal(const wire::datagram_t &datagram) {
    const wire::message_walk message(datagram);
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

    // Only the request: anything that follows it in the datagram is not part of it.
    const std::size_t start = std::min(NLMSG_HDRLEN + request_offset, datagram.length);
    const unsigned char *const bytes = datagram.bytes + start;
    const auto length =
        static_cast<int>(std::min<std::size_t>(request.nlmsg_len, datagram.length - start));
    if (refusal.request == RTM_NEWADDR || refusal.request == RTM_DELADDR) {
        const auto addrs = decode_addrs(bytes, length);
        if (!addrs.empty()) {
            refusal.addr = addrs.front();
            return refusal;
        }
    } else if (refusal.request == RTM_NEWROUTE || refusal.request == RTM_DELROUTE) {
        const auto routes = decode_routes(bytes, length);
        if (!routes.empty()) {
            refusal.route = routes.front();
            return refusal;
        }
    }
    return boost::none;
}
