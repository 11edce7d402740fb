// The engine's start, and what becomes of each datagram that the kernel sends.

#include <cstdlib>
#include <linux/rtnetlink.h>
#include <memory>
#include <utility>

#include "netlink/decode.h"
#include "netlink/dump.h"
#include "shell/log.h"
#include "sync/sync.h"

namespace {

// Frees the datagram on every way out.
struct datagram_owner {
    datagram_owner() = default;
    datagram_owner(const datagram_owner &) = delete;
    datagram_owner &operator=(const datagram_owner &) = delete;
    ~datagram_owner() { std::free(bytes); }

    unsigned char *bytes = nullptr;
};

} // namespace

CSync::CSync(toolkit::CTav *tav_client, CNetlink *channel, tk_string interface_prefix)
    : tav(tav_client), netlink(channel), interfaces(initial_buckets),
      if_prefix(std::move(interface_prefix)) {}

// Only sends the next request: the answer arrives through handle_netlink, and its end calls this
// again. Links come first, so that every address and route finds its interface.
void CSync::discover() {
    constexpr const char *signature = "void CSync::discover()";
    switch (state) {
    case state_idle:
        log_info_at(3, "%s: requesting link state", signature);
        netlink->request_links();
        state = state_links;
        break;
    case state_links:
        log_info_at(3, "%s: requesting addrs", signature);
        netlink->request_addrs();
        state = state_addrs;
        break;
    case state_addrs:
        log_info_at(3, "%s: requesting routes", signature);
        netlink->request_routes();
        state = state_routes;
        break;
    case state_routes:
        log_info_at(3, "%s: beginning normal operation", signature);
        state = state_normal;
        sync_all();
        break;
    default:
        break;
    }
    note_dump_request();
}

void CSync::handle_netlink() {
    datagram_owner datagram;
    int length = 0;
    const int type = netlink->recv(datagram.bytes, length);
    log_info_at(4, "Received netlink update (type %d)", type);
    note_incomplete_dump(datagram.bytes, length);
    dispatch(type, datagram.bytes, length);
    if (type == CNetlink::nothing) {
        handle_refusal(datagram.bytes, length);
    } else if (type >= RTM_NEWLINK && type <= RTM_DELROUTE &&
               dump_ends_behind_first(datagram.bytes, length)) {
        handle_dump_end();
    }
}

void CSync::dispatch(int type, const unsigned char *buffer, int length) {
    switch (type) {
    case CNetlink::end_of_dump:
        handle_dump_end();
        break;
    case RTM_NEWLINK:
    case RTM_DELLINK:
    case RTM_SETLINK:
        nl_link_update(type, decode_links(buffer, length));
        break;
    case RTM_NEWADDR:
    case RTM_DELADDR:
        nl_addr_update(type, decode_addrs(buffer, length));
        break;
    case RTM_NEWROUTE:
    case RTM_DELROUTE:
        nl_route_update(type, decode_routes(buffer, length));
        break;
    default:
        break;
    }
}

void CSync::handle_dump_end() {
    if (state == state_normal) {
        log_warning_at(1, "Got NLMSG_DONE outside of a requested discovery operation...");
    }
    if (!repeat_incomplete_dump()) {
        discover();
    }
}
