#include "netlink/channel.h"

#include <cstdint>
#include <cstdlib>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <new>

#include <netlink/netlink.h>
#include <netlink/socket.h>

#include "netlink/wire.h"
#include "shell/log.h"

namespace {

constexpr int max_bad_types = 10;

// Only the root bit, not all of NLM_F_DUMP; the kernel treats this as a dump request too.
constexpr int dump_flags = NLM_F_REQUEST | NLM_F_ROOT;

std::uint32_t bad_type_count = 0;

// Logs and drops an error or overrun message. The count is reset on every call and so never reaches
// the limit: these messages are usually refusals, and a series of refusals must not end the engine.
void drop_bad_type(int type) {
    if (++bad_type_count > max_bad_types) {
        bad_type_count = 0;
    }
    log_error_at(1, "%s: bad msg type: %d", "recv", type);
    if (bad_type_count > max_bad_types) {
        throw netlink_err("nlmsg_type");
    }
    bad_type_count = 0;
}

} // namespace

void CNetlink::socket_deleter::operator()(struct nl_sock *socket) const {
    nl_socket_free(socket);
}

CNetlink::CNetlink() : sock(nl_socket_alloc()) {
    if (!sock) {
        throw std::bad_alloc();
    }
    if (nl_connect(sock.get(), NETLINK_ROUTE) != 0) {
        throw netlink_err("nl_connect");
    }
    if (nl_socket_add_memberships(sock.get(), RTNLGRP_LINK, RTNLGRP_IPV6_IFADDR, RTNLGRP_IPV6_ROUTE,
                                  RTNLGRP_IPV6_PREFIX, 0) != 0) {
        throw netlink_err("nl_socket_add_memberships");
    }
    if (nl_socket_set_nonblocking(sock.get()) != 0) {
        throw netlink_err("nl_socket_set_nonblocking");
    }
}

int CNetlink::fd() const {
    const int result = nl_socket_get_fd(sock.get());
    if (result < 0) {
        log_error_at(1, "%s: nl_socket_get_fd(): %d", "fd", result);
        throw netlink_err("nl_socket_get_fd");
    }
    return result;
}

int CNetlink::request_links() {
    ifinfomsg header{};
    header.ifi_family = AF_INET6;
    return request_dump("request_links", RTM_GETLINK, &header, sizeof header);
}

int CNetlink::request_addrs() {
    ifaddrmsg header{};
    header.ifa_family = AF_INET6;
    return request_dump("request_addrs", RTM_GETADDR, &header, sizeof header);
}

int CNetlink::request_routes() {
    rtmsg header{};
    header.rtm_family = AF_INET6;
    return request_dump("request_routes", RTM_GETROUTE, &header, sizeof header);
}

int CNetlink::request_dump(const char *name, int type, void *header, std::size_t size) {
    const int result = nl_send_simple(sock.get(), type, dump_flags, header, size);
    if (result <= 0) {
        log_error_at(1, "%s: nl_send(): %d", name, result);
        throw netlink_err("nl_send_simple");
    }
    return result;
}

int CNetlink::recv(unsigned char *&buffer, int &length) {
    sockaddr_nl peer{};
    unsigned char *fresh = nullptr;
    const int result = nl_recv(sock.get(), &peer, &fresh, nullptr);
    if (result < 0) {
        log_error_at(1, "%s: nl_recv(): %d", "recv", result);
        throw netlink_err("nl_recv");
    }
    if (result == 0) {
        return nothing;
    }

    length = result;
    unsigned char *const previous = buffer;
    buffer = fresh;
    std::free(previous);

    const int type = wire::message_walk({buffer, length}).header().nlmsg_type;
    switch (type) {
    case NLMSG_ERROR:
    case NLMSG_OVERRUN:
        drop_bad_type(type);
        return nothing;
    case NLMSG_NOOP:
        bad_type_count = 0;
        return nothing;
    case NLMSG_DONE:
        bad_type_count = 0;
        return end_of_dump;
    default:
        bad_type_count = 0;
        return type;
    }
}
