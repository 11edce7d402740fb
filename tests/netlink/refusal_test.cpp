// The kernel's refusals of the daemon's own changes.
#include "netlink/refusal.h"

#include <cerrno>
#include <cstring>
#include <string>

#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include "fakes/fake_libnl.h"
#include "fakes/log_capture.h"
#include "netlink/channel.h"
#include "netlink/exact_buffer.h"

namespace {

using fake_libnl::addr;
using fake_libnl::bytes_t;
using fake_libnl::datagram_t;
using fake_libnl::message_t;

boost::optional<refusal_t> decoded(const bytes_t &datagram, bool odd = false) {
    const exact_buffer buffer(datagram, odd);
    return decode_refusal(buffer.bytes(), buffer.length());
}

void expect_addr(const in6_addr &got, const std::string &text) {
    const in6_addr wanted = addr(text);
    EXPECT_EQ(std::memcmp(&got, &wanted, sizeof wanted), 0) << text;
}

class Refusal : public DaemonTest {
protected:
    // The requests as the channel sends them.
    message_t route_request(bool add) {
        CKernRoute route;
        route.ifindex = 7;
        route.gateway = addr("fe80::1");
        channel.modify_route(route, add);
        return fake_libnl::state().changes.back();
    }
    message_t addr_request(bool add) {
        CKernAddress address;
        address.ifindex = 3;
        address.addr = addr("2001:db8::5");
        address.prefix_len = 48;
        address.scope = 253;
        channel.modify_addr(address, add);
        return fake_libnl::state().changes.back();
    }
    CNetlink channel;
};

TEST_F(Refusal, OfARouteGivesTheErrorAndTheRouteBack) {
    for (const bool add : {true, false}) {
        const auto refusal = decoded(datagram_t().error(-EHOSTUNREACH, route_request(add)));
        ASSERT_TRUE(refusal);
        EXPECT_EQ(refusal->error, EHOSTUNREACH);
        EXPECT_EQ(refusal->request, add ? RTM_NEWROUTE : RTM_DELROUTE);
        EXPECT_EQ(refusal->route.ifindex, 7);
        expect_addr(refusal->route.gateway, "fe80::1");
        expect_addr(refusal->route.dst, "::");
        EXPECT_EQ(refusal->route.dst_len, 0);
    }
}

TEST_F(Refusal, OfAnAddressGivesTheErrorAndTheAddressBack) {
    for (const bool add : {true, false}) {
        const auto refusal = decoded(datagram_t().error(-EEXIST, addr_request(add)));
        ASSERT_TRUE(refusal);
        EXPECT_EQ(refusal->error, EEXIST);
        EXPECT_EQ(refusal->request, add ? RTM_NEWADDR : RTM_DELADDR);
        EXPECT_EQ(refusal->addr.ifindex, 3);
        EXPECT_EQ(refusal->addr.prefix_len, 48);
        expect_addr(refusal->addr.addr, "2001:db8::5");
    }
}

TEST_F(Refusal, IsNotAnAcknowledgement) {
    EXPECT_FALSE(decoded(datagram_t().error(0, route_request(true))));
    EXPECT_FALSE(decoded(datagram_t().error(0, addr_request(false))));
    // Not even with the whole request inside.
    bytes_t whole = datagram_t().error(-1, addr_request(true));
    std::memset(whole.data() + NLMSG_HDRLEN, 0, 4);
    EXPECT_FALSE(decoded(whole));
}

TEST_F(Refusal, OfADumpIsNobodysConcern) {
    channel.request_links();
    channel.request_addrs();
    channel.request_routes();
    ASSERT_EQ(fake_libnl::state().requests.size(), 3U);
    for (const auto &request : fake_libnl::state().requests) {
        EXPECT_FALSE(decoded(datagram_t().error(-EBUSY, request))) << request.type;
    }
}

TEST_F(Refusal, WithoutTheRequestInsideTellsNothing) {
    for (const bool add : {true, false}) {
        EXPECT_FALSE(
            decoded(datagram_t().error(-EPERM, {add ? RTM_NEWROUTE : RTM_DELROUTE, 0, {}})));
        EXPECT_FALSE(decoded(datagram_t().error(-EPERM, {add ? RTM_NEWADDR : RTM_DELADDR, 0, {}})));
    }
}

TEST_F(Refusal, IsOnlyLookedForInTheFirstMessage) {
    bytes_t behind = datagram_t().address(RTM_NEWADDR, 2, "2001:db8::1", 64);
    const bytes_t error = datagram_t().error(-ENETDOWN, route_request(true));
    behind.insert(behind.end(), error.begin(), error.end());
    EXPECT_FALSE(decoded(behind));
    EXPECT_FALSE(decoded(datagram_t().done(-1)));
    EXPECT_FALSE(decoded({}));
}

// The kernel appends its own attributes (an explanation, say) behind the request.
TEST_F(Refusal, IsReadAlsoWithAttributesBehindTheRequest) {
    const auto refusal =
        decoded(datagram_t().error(-EINVAL, route_request(true)).attribute(1, "Invalid gateway"));
    ASSERT_TRUE(refusal);
    EXPECT_EQ(refusal->error, EINVAL);
    expect_addr(refusal->route.gateway, "fe80::1");
}

TEST_F(Refusal, LogsNothing) {
    const bytes_t datagram = datagram_t().error(-ENETDOWN, route_request(true));
    verbosity = 9;
    captured::clear();
    decoded(datagram);
    EXPECT_TRUE(captured::log().empty());
}

TEST_F(Refusal, ReadsStayInsideTheDatagramAtAnyAddress) {
    for (const auto &request : {route_request(true), addr_request(true)}) {
        const bytes_t whole = datagram_t().error(-ENETDOWN, request);
        for (std::size_t size = 0; size <= whole.size(); ++size) {
            bytes_t cut = whole;
            cut.resize(size);
            const auto even = decoded(cut);
            const auto odd = decoded(cut, true);
            EXPECT_EQ(even.has_value(), odd.has_value()) << size;
            if (size <= NLMSG_HDRLEN + 4 + NLMSG_HDRLEN) {
                EXPECT_FALSE(even) << size;
            }
        }
        EXPECT_TRUE(decoded(whole, true));
    }
}

} // namespace
