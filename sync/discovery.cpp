// The engine's start, and the handling of each datagram from the kernel.

#include <linux/rtnetlink.h>
#include <utility>

#include "netlink/decode.h"
#include "shell/log.h"
#include "sync/sync.h"

CSync::CSync(toolkit::CTav *tav_client, CNetlink *channel, tk_string interface_prefix)
    : tav(tav_client), netlink(channel), interfaces(initial_buckets),
      if_prefix(std::move(interface_prefix)) {}

// Does not wait: the answer to each request arrives through handle_netlink, which calls this again
// at the end of the answer. Links come first, so that every address and route finds its interface.
void CSync::discover() {
    constexpr const char *signature = "void CSync::discover()";
    switch (state) {
    case state_idle:
        log_info_at(3, "%s: requesting link state", signature);
        request_dump(state_links);
        break;
    case state_links:
        log_info_at(3, "%s: requesting addrs", signature);
        request_dump(state_addrs);
        break;
    case state_addrs:
        log_info_at(3, "%s: requesting routes", signature);
        request_dump(state_routes);
        break;
    case state_routes:
        log_info_at(3, "%s: beginning normal operation", signature);
        state = state_normal;
        sync_all();
        break;
    default:
        break;
    }
}

// Requests the dump that the engine awaits in the given state, and enters that state.
void CSync::request_dump(int awaiting) {
    if (awaiting == state_links) {
        netlink->request_links();
    } else if (awaiting == state_addrs) {
        netlink->request_addrs();
    } else {
        netlink->request_routes();
    }
    state = awaiting;
    dumps.requested();
}

void CSync::handle_netlink() {
    wire::owned_datagram_t datagram;
    const int type = netlink->recv(datagram.bytes, datagram.length);
    const dump_marks_t marks = read_dump_marks(datagram);
    log_info_at(4, "Received netlink update (type %d)", type);
    switch (type) {
    case CNetlink::nothing:
        handle_refusal(datagram);
        break;
    case RTM_NEWLINK:
    case RTM_DELLINK:
    case RTM_SETLINK:
        nl_link_update(type, decode_links(datagram.bytes, datagram.length));
        break;
    case RTM_NEWADDR:
    case RTM_DELADDR:
        nl_addr_update(type, decode_addrs(datagram.bytes, datagram.length));
        break;
    case RTM_NEWROUTE:
    case RTM_DELROUTE:
        nl_route_update(type, decode_routes(datagram.bytes, datagram.length));
        break;
    default:
        break;
    }
    if (state != state_idle && state != state_normal) {
        dumps.handled(marks);
    }
    if (type == CNetlink::end_of_dump ||
        (type >= RTM_NEWLINK && type <= RTM_DELROUTE && marks.ends_after_first)) {
        handle_dump_end();
    }
}

void CSync::handle_dump_end() {
    if (state == state_normal) {
        log_warning_at(1, "Got NLMSG_DONE outside of a requested discovery operation...");
    } else if (dumps.repeats()) {
        log_info_at(3, "%s: dump was interrupted, requested it again",
                    "void CSync::handle_dump_end()");
        request_dump(state);
        return;
    }
    discover();
}
