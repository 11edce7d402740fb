// The kernel's refusals of the daemon's own changes.
#include "netlink/refusal.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include <linux/if_addr.h>
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
    return decode_refusal({buffer.bytes(), buffer.length()});
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

TEST_F(Refusal, IsReadFromErrorMessagesOnly) {
    for (const int type : {NLMSG_OVERRUN, NLMSG_NOOP, NLMSG_DONE, int{RTM_NEWADDR}}) {
        bytes_t other = datagram_t().error(-EEXIST, addr_request(true));
        ASSERT_TRUE(decoded(other));
        const auto number = static_cast<std::uint16_t>(type);
        std::memcpy(other.data() + offsetof(nlmsghdr, nlmsg_type), &number, sizeof number);
        EXPECT_FALSE(decoded(other)) << type;
    }
}

TEST_F(Refusal, WithoutTheRequestsContentGivesNoRecord) {
    for (const auto &request : {route_request(true), addr_request(true)}) {
        bytes_t capped = datagram_t().error(-EEXIST, request);
        ASSERT_TRUE(decoded(capped));
        const std::uint16_t flags = NLM_F_CAPPED | NLM_F_ACK_TLVS;
        std::memcpy(capped.data() + offsetof(nlmsghdr, nlmsg_flags), &flags, sizeof flags);
        EXPECT_FALSE(decoded(capped));
        const std::uint16_t others = NLM_F_ACK_TLVS;
        std::memcpy(capped.data() + offsetof(nlmsghdr, nlmsg_flags), &others, sizeof others);
        EXPECT_TRUE(decoded(capped));
    }
}

TEST_F(Refusal, CarriesANegativeErrorNumber) {
    for (const auto &request : {route_request(true), addr_request(true)}) {
        for (const int error : {1, EEXIST, 0x7fffffff}) {
            EXPECT_FALSE(decoded(datagram_t().error(error, request))) << error;
        }
    }
}

TEST_F(Refusal, OfADumpIsIgnored) {
    channel.request_links();
    channel.request_addrs();
    channel.request_routes();
    ASSERT_EQ(fake_libnl::state().requests.size(), 3U);
    for (const auto &request : fake_libnl::state().requests) {
        EXPECT_FALSE(decoded(datagram_t().error(-EBUSY, request))) << request.type;
    }
}

TEST_F(Refusal, WithoutTheRequestInsideGivesNoRecord) {
    for (const bool add : {true, false}) {
        EXPECT_FALSE(
            decoded(datagram_t().error(-EPERM, {add ? RTM_NEWROUTE : RTM_DELROUTE, 0, {}})));
        EXPECT_FALSE(decoded(datagram_t().error(-EPERM, {add ? RTM_NEWADDR : RTM_DELADDR, 0, {}})));
    }
}

TEST_F(Refusal, IsReadFromTheFirstMessageOnly) {
    bytes_t second = datagram_t().address(RTM_NEWADDR, 2, "2001:db8::1", 64);
    const bytes_t error = datagram_t().error(-ENETDOWN, route_request(true));
    second.insert(second.end(), error.begin(), error.end());
    EXPECT_FALSE(decoded(second));
    EXPECT_FALSE(decoded(datagram_t().done(-1)));
    EXPECT_FALSE(decoded({}));
}

// The kernel appends its own attributes (for example an explanation) after the request.
TEST_F(Refusal, IsReadAlsoWithAttributesAfterTheRequest) {
    const auto refusal =
        decoded(datagram_t().error(-EINVAL, route_request(true)).attribute(1, "Invalid gateway"));
    ASSERT_TRUE(refusal);
    EXPECT_EQ(refusal->error, EINVAL);
    expect_addr(refusal->route.gateway, "fe80::1");
}

// NLMSGERR_ATTR_MSG and IFA_ADDRESS are both 1, and so on: what follows would be misread.
TEST_F(Refusal, DoesNotReadAttributesAfterTheRequestAsTheRequests) {
    const auto address = decoded(
        datagram_t().error(-EEXIST, addr_request(true)).attribute(1, addr("2001:db8::bad")));
    ASSERT_TRUE(address);
    expect_addr(address->addr.addr, "2001:db8::5");
    const auto route = decoded(datagram_t()
                                   .error(-EEXIST, route_request(true))
                                   .attribute(RTA_DST, addr("2001:db8::bad"))
                                   .attribute(RTA_OIF, 99)
                                   .attribute(RTA_GATEWAY, addr("2001:db8::bad")));
    ASSERT_TRUE(route);
    EXPECT_EQ(route->route.ifindex, 7);
    expect_addr(route->route.gateway, "fe80::1");
    expect_addr(route->route.dst, "::");
}

// A refused request with only `size` zeros as its family header, followed by `rest`.
bytes_t refusal_followed_by(int type, std::size_t size, const bytes_t &rest) {
    bytes_t all = datagram_t().error(-EEXIST, {type, 0, bytes_t(size, 0)});
    all.insert(all.end(), rest.begin(), rest.end());
    return all;
}

TEST_F(Refusal, EndsWithTheRequestsOwnLength) {
    verbosity = 9;
    const bytes_t address = datagram_t().address(RTM_NEWADDR, 2, "2001:db8::bad", 64);
    const bytes_t route = datagram_t().route(RTM_NEWROUTE, 2, "2001:db8::bad");
    // Only the first message is examined, and records of other messages are not used.
    EXPECT_FALSE(decoded(refusal_followed_by(RTM_NEWADDR, sizeof(ifaddrmsg), address)));
    EXPECT_EQ(captured::log().size(), 1U);
    captured::clear();
    EXPECT_FALSE(decoded(refusal_followed_by(RTM_NEWROUTE, sizeof(rtmsg), route)));
    EXPECT_EQ(captured::log().size(), 1U);
    // No attribute.
    EXPECT_FALSE(decoded(
        datagram_t().error(-EEXIST, {RTM_NEWADDR, 0, bytes_t(8, 0)}).attribute(1, addr("::bad"))));
    // No payload: the request's last attribute has none, and zeros are read for it.
    message_t bare = addr_request(true);
    const rtattr empty{sizeof(rtattr), IFA_ADDRESS};
    bare.body.resize(sizeof(ifaddrmsg));
    bare.body.resize(sizeof(ifaddrmsg) + sizeof empty);
    std::memcpy(bare.body.data() + sizeof(ifaddrmsg), &empty, sizeof empty);
    const auto refusal =
        decoded(datagram_t().error(-EEXIST, bare).attribute(1, addr("2001:db8::bad")));
    ASSERT_TRUE(refusal);
    expect_addr(refusal->addr.addr, "::");
}

TEST_F(Refusal, LogsNothing) {
    const bytes_t datagram = datagram_t().error(-ENETDOWN, route_request(true));
    verbosity = 9;
    captured::clear();
    decoded(datagram);
    EXPECT_TRUE(captured::log().empty());
}

TEST_F(Refusal, LogsNothingAboutAttributesAfterTheRequest) {
    const bytes_t datagram =
        datagram_t().error(-EINVAL, addr_request(true)).attribute(1, "IPv6: address already here");
    verbosity = 9;
    captured::clear();
    EXPECT_TRUE(decoded(datagram));
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
