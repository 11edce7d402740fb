// Route messages.
#include "netlink/decode.h"

#include <cstring>
#include <string>
#include <vector>

#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <syslog.h>

#include "fakes/fake_libnl.h"
#include "fakes/log_capture.h"
#include "netlink/exact_buffer.h"

namespace {

using fake_libnl::addr;
using fake_libnl::bytes_t;
using fake_libnl::datagram_t;

std::vector<CKernRoute> decoded(const bytes_t &datagram) {
    const exact_buffer buffer(datagram);
    return decode_routes(buffer.bytes(), buffer.length());
}

void expect_addr(const in6_addr &got, const std::string &text) {
    const in6_addr wanted = addr(text);
    EXPECT_EQ(std::memcmp(&got, &wanted, sizeof wanted), 0) << text;
}

class DecodeRoutes : public DaemonTest {};

TEST_F(DecodeRoutes, AnEmptyDatagramYieldsNothing) {
    verbosity = 9;
    EXPECT_TRUE(decoded({}).empty());
    EXPECT_TRUE(captured::log().empty());
}

TEST_F(DecodeRoutes, ARouteIsItsInterfaceProtocolDestinationAndGateway) {
    verbosity = 9;
    const auto routes =
        decoded(datagram_t().route(RTM_NEWROUTE, 70000, "fe80::1", 9, "2001:db8:1::", 48));
    ASSERT_EQ(routes.size(), 1U);
    EXPECT_EQ(routes[0].ifindex, 70000);
    EXPECT_EQ(routes[0].protocol, 9);
    EXPECT_EQ(routes[0].dst_len, 48);
    expect_addr(routes[0].dst, "2001:db8:1::");
    expect_addr(routes[0].gateway, "fe80::1");
    EXPECT_TRUE(captured::log().empty());
}

TEST_F(DecodeRoutes, ADefaultRouteHasAnAllZeroDestination) {
    const auto routes = decoded(datagram_t().route(RTM_NEWROUTE, 2, "fe80::1"));
    ASSERT_EQ(routes.size(), 1U);
    expect_addr(routes[0].dst, "::");
    EXPECT_EQ(routes[0].dst_len, 0);
}

TEST_F(DecodeRoutes, ARouteWithoutGatewayIsKeptWithAnAllZeroOne) {
    const auto routes = decoded(datagram_t().route(RTM_NEWROUTE, 2, "", 2, "fe80::", 64));
    ASSERT_EQ(routes.size(), 1U);
    expect_addr(routes[0].gateway, "::");
    expect_addr(routes[0].dst, "fe80::");
}

TEST_F(DecodeRoutes, ARouteWithoutOutputInterfaceIsSkipped) {
    const bytes_t datagram = datagram_t().route(RTM_NEWROUTE, -1, "fe80::1");
    EXPECT_TRUE(decoded(datagram).empty());
    expect_logged_at(2, LOG_INFO, "Info: Skipping route msg with no idx",
                     [&datagram] { decoded(datagram); });
}

TEST_F(DecodeRoutes, AnOutputInterfaceOfMinusOneIsAccepted) {
    const auto routes = decoded(
        datagram_t().route(RTM_NEWROUTE, -1, "fe80::1").attribute(RTA_OIF, std::int32_t{-1}));
    ASSERT_EQ(routes.size(), 1U);
    EXPECT_EQ(routes[0].ifindex, -1);
}

TEST_F(DecodeRoutes, ADeletionDecodesLikeAnAddition) {
    const auto added = decoded(datagram_t().route(RTM_NEWROUTE, 2, "fe80::1", 4, "2001:db8::", 32));
    const auto deleted =
        decoded(datagram_t().route(RTM_DELROUTE, 2, "fe80::1", 4, "2001:db8::", 32));
    ASSERT_EQ(added.size(), 1U);
    ASSERT_EQ(deleted.size(), 1U);
    EXPECT_EQ(added[0].ifindex, deleted[0].ifindex);
    EXPECT_EQ(added[0].protocol, deleted[0].protocol);
    EXPECT_EQ(added[0].dst_len, deleted[0].dst_len);
    EXPECT_EQ(std::memcmp(&added[0].dst, &deleted[0].dst, 16), 0);
    EXPECT_EQ(std::memcmp(&added[0].gateway, &deleted[0].gateway, 16), 0);
}

TEST_F(DecodeRoutes, SeveralMessagesComeInOrderAndShareNothing) {
    const auto routes = decoded(datagram_t()
                                    .route(RTM_NEWROUTE, 2, "fe80::1", 4, "2001:db8::", 32)
                                    .route(RTM_NEWROUTE, -1, "fe80::2")
                                    .route(RTM_NEWROUTE, 3, ""));
    ASSERT_EQ(routes.size(), 2U);
    EXPECT_EQ(routes[0].ifindex, 2);
    EXPECT_EQ(routes[1].ifindex, 3);
    expect_addr(routes[1].gateway, "::");
    expect_addr(routes[1].dst, "::");
}

TEST_F(DecodeRoutes, FamilyTableScopeTypeAndOtherAttributesAreIgnored) {
    rtmsg header{};
    header.rtm_family = AF_INET;
    header.rtm_src_len = 64;
    header.rtm_tos = 1;
    header.rtm_table = RT_TABLE_LOCAL;
    header.rtm_scope = RT_SCOPE_LINK;
    header.rtm_type = RTN_UNREACHABLE;
    header.rtm_flags = 0xffff;
    header.rtm_protocol = RTPROT_RA;
    const auto routes = decoded(datagram_t()
                                    .message(RTM_NEWROUTE, &header, sizeof header)
                                    .attribute(RTA_OIF, 5)
                                    .attribute(RTA_PRIORITY, 1024)
                                    .attribute(RTA_TABLE, 255)
                                    .attribute(RTA_PREFSRC, addr("2001:db8::9")));
    ASSERT_EQ(routes.size(), 1U);
    EXPECT_EQ(routes[0].ifindex, 5);
    EXPECT_EQ(routes[0].protocol, RTPROT_RA);
    expect_addr(routes[0].gateway, "::");
}

TEST_F(DecodeRoutes, TheLastOfRepeatedAttributesIsUsed) {
    const auto routes = decoded(datagram_t()
                                    .route(RTM_NEWROUTE, 2, "fe80::1", 4, "2001:db8::", 32)
                                    .attribute(RTA_OIF, 3)
                                    .attribute(RTA_GATEWAY, addr("fe80::2"))
                                    .attribute(RTA_DST, addr("2001:db9::")));
    ASSERT_EQ(routes.size(), 1U);
    EXPECT_EQ(routes[0].ifindex, 3);
    expect_addr(routes[0].gateway, "fe80::2");
    expect_addr(routes[0].dst, "2001:db9::");
}

TEST_F(DecodeRoutes, FourBytesOfAnInterfaceAreReadForAnyAttributeLength) {
    // Only its first byte is inside the datagram; zeros are read after it.
    bytes_t bytes = datagram_t().route(RTM_NEWROUTE, -1, "").attribute(RTA_OIF, "\x05", 1);
    bytes.resize(bytes.size() - 3);
    const auto routes = decoded(bytes);
    ASSERT_EQ(routes.size(), 1U);
    const unsigned char first_byte_five[4] = {5, 0, 0, 0};
    std::int32_t wanted = 0;
    std::memcpy(&wanted, first_byte_five, 4);
    EXPECT_EQ(routes[0].ifindex, wanted);
}

TEST_F(DecodeRoutes, ATrailingEndOfDumpIsSkippedWithItsLogLine) {
    verbosity = 2;
    const auto routes = decoded(datagram_t().route(RTM_NEWROUTE, 2, "fe80::1").done());
    ASSERT_EQ(routes.size(), 1U);
    EXPECT_EQ(captured::log_texts(),
              (std::vector<std::string>{"Info: Skipping route msg with no idx"}));
}

// It is a message like every other.
TEST_F(DecodeRoutes, AnEndOfDumpWithAttributesIsARoute) {
    const rtmsg header{};
    const auto routes = decoded(datagram_t()
                                    .route(RTM_NEWROUTE, 2, "fe80::1")
                                    .message(NLMSG_DONE, &header, sizeof header)
                                    .attribute(RTA_OIF, 3));
    ASSERT_EQ(routes.size(), 2U);
    EXPECT_EQ(routes[1].ifindex, 3);
}

} // namespace
