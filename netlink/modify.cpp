#include "netlink/channel.h"

#include <cstdint>
#include <memory>

#include <linux/if_addr.h>
#include <linux/rtnetlink.h>

#include <netlink/attr.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>

#include "shell/log.h"

namespace {

struct message_deleter {
    void operator()(nl_msg *message) const { nlmsg_free(message); }
};
using message_owner = std::unique_ptr<nl_msg, message_deleter>;

rtmsg route_header(const CKernRoute &route, bool add) {
    rtmsg header{};
    header.rtm_family = AF_INET6;
    header.rtm_dst_len = route.dst_len;
    header.rtm_table = RT_TABLE_MAIN;
    if (add) {
        header.rtm_protocol = RTPROT_STATIC;
        header.rtm_scope = RT_SCOPE_UNIVERSE;
        header.rtm_type = RTN_UNICAST;
    } else {
        // Matches a route of any protocol and type.
        header.rtm_protocol = RTPROT_UNSPEC;
        header.rtm_scope = RT_SCOPE_NOWHERE;
        header.rtm_type = RTN_UNSPEC;
    }
    return header;
}

} // namespace

void CNetlink::modify_route(const CKernRoute &route, bool add) {
    rtmsg header = route_header(route, add);
    const message_owner message(nlmsg_alloc_simple(
        add ? RTM_NEWROUTE : RTM_DELROUTE, add ? NLM_F_REQUEST | NLM_F_CREATE : NLM_F_REQUEST));
    if (!message) {
        log_error_at(1, "%s: Couldn't allocate nlmsg", "modify_route");
        throw netlink_err("nlmsg_alloc_simple");
    }
    int result = nlmsg_append(message.get(), &header, sizeof header, NLMSG_ALIGNTO);
    if (result != 0) {
        log_error_at(1, "Can't append rtm to nl msg: %d", result);
        throw netlink_err("nlmsg_append");
    }
    // No RTA_DST: with a destination length of 0 the destination is ::/0.
    const std::int32_t ifindex = route.ifindex;
    const in6_addr gateway = route.gateway;
    if (nla_put(message.get(), RTA_OIF, sizeof ifindex, &ifindex) < 0 ||
        nla_put(message.get(), RTA_GATEWAY, sizeof gateway, &gateway) < 0) {
        log_error_at(1, "Failed to append RTA attributes");
        throw netlink_err("NLA_PUT");
    }
    result = nl_send_auto_complete(sock.get(), message.get());
    if (result <= 0) {
        log_error_at(1, "Failed to send rtm message: %d", result);
        throw netlink_err("nl_send_auto_complete");
    }
}

void CNetlink::modify_addr(const CKernAddress &addr, bool add) {
    ifaddrmsg header{};
    header.ifa_family = AF_INET6;
    header.ifa_prefixlen = addr.prefix_len;
    header.ifa_scope = addr.scope;
    header.ifa_index = static_cast<std::uint32_t>(addr.ifindex);
    // NLM_F_REQUEST is added when the message is sent.
    const message_owner message(
        nlmsg_alloc_simple(add ? RTM_NEWADDR : RTM_DELADDR, add ? NLM_F_CREATE | NLM_F_APPEND : 0));
    if (!message) {
        log_error_at(1, "Couldn't allocate nlmsg");
        throw netlink_err("nlmsg_alloc_simple");
    }
    int result = nlmsg_append(message.get(), &header, sizeof header, NLMSG_ALIGNTO);
    if (result != 0) {
        log_error_at(1, "Can't append ifa to nl msg: %d", result);
        throw netlink_err("nlmsg_append");
    }
    const in6_addr address = addr.addr;
    if (nla_put(message.get(), IFA_ADDRESS, sizeof address, &address) < 0) {
        log_error_at(1, "Failed to append IFA_ADDRESS");
        throw netlink_err("NLA_PUT");
    }
    result = nl_send_auto_complete(sock.get(), message.get());
    if (result <= 0) {
        log_error_at(1, "Failed to send ifa message: %d", result);
        throw netlink_err("nl_send_auto_complete");
    }
}
