// Route messages.
#include <cstring>

#include <linux/rtnetlink.h>
#include <syslog.h>

#include "netlink/decoded_text.h"

namespace {

using fake_libnl::addr;
using fake_libnl::bytes_t;
using fake_libnl::datagram_t;

class DecodeRoutes : public DaemonTest {};

TEST_F(DecodeRoutes, ARouteIsItsInterfaceProtocolDestinationAndGateway) {
    verbosity = 9;
    EXPECT_EQ(decoded_routes({}), strings{});
    for (const int type : {RTM_NEWROUTE, RTM_DELROUTE}) {
        EXPECT_EQ(decoded_routes(datagram_t().route(type, 70000, "fe80::1", 9, "2001:db8:1::", 48)),
                  strings{"70000 2001:db8:1::/48 via fe80::1 protocol 9"});
    }
    EXPECT_TRUE(captured::log().empty());
}

TEST_F(DecodeRoutes, ADefaultRouteHasAnAllZeroDestination) {
    EXPECT_EQ(decoded_routes(datagram_t().route(RTM_NEWROUTE, 2, "fe80::1")),
              strings{"2 ::/0 via fe80::1 protocol 4"});
}

TEST_F(DecodeRoutes, ARouteWithoutGatewayIsKeptWithAnAllZeroOne) {
    EXPECT_EQ(decoded_routes(datagram_t().route(RTM_NEWROUTE, 2, "", 2, "fe80::", 64)),
              strings{"2 fe80::/64 via :: protocol 2"});
}

TEST_F(DecodeRoutes, ARouteWithoutOutputInterfaceIsSkipped) {
    const bytes_t datagram = datagram_t().route(RTM_NEWROUTE, -1, "fe80::1");
    EXPECT_EQ(decoded_routes(datagram), strings{});
    expect_info_at(2, "Skipping route msg with no idx", [&datagram] { decoded_routes(datagram); });
}

TEST_F(DecodeRoutes, AnOutputInterfaceOfMinusOneIsAccepted) {
    EXPECT_EQ(
        decoded_routes(
            datagram_t().route(RTM_NEWROUTE, -1, "fe80::1").attribute(RTA_OIF, std::int32_t{-1})),
        strings{"-1 ::/0 via fe80::1 protocol 4"});
}

TEST_F(DecodeRoutes, SeveralMessagesComeInOrderAndShareNothing) {
    EXPECT_EQ(decoded_routes(datagram_t()
                                 .route(RTM_NEWROUTE, 2, "fe80::1", 4, "2001:db8::", 32)
                                 .route(RTM_NEWROUTE, -1, "fe80::2")
                                 .route(RTM_NEWROUTE, 3, "")),
              (strings{"2 2001:db8::/32 via fe80::1 protocol 4", "3 ::/0 via :: protocol 4"}));
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
    EXPECT_EQ(decoded_routes(datagram_t()
                                 .message(RTM_NEWROUTE, &header, sizeof header)
                                 .attribute(RTA_OIF, 5)
                                 .attribute(RTA_PRIORITY, 1024)
                                 .attribute(RTA_TABLE, 255)
                                 .attribute(RTA_PREFSRC, addr("2001:db8::9"))),
              strings{"5 ::/0 via :: protocol 9"});
}

TEST_F(DecodeRoutes, TheLastOfRepeatedAttributesIsUsed) {
    EXPECT_EQ(decoded_routes(datagram_t()
                                 .route(RTM_NEWROUTE, 2, "fe80::1", 4, "2001:db8::", 32)
                                 .attribute(RTA_OIF, 3)
                                 .attribute(RTA_GATEWAY, addr("fe80::2"))
                                 .attribute(RTA_DST, addr("2001:db9::"))),
              strings{"3 2001:db9::/32 via fe80::2 protocol 4"});
}

TEST_F(DecodeRoutes, FourBytesOfAnInterfaceAreReadForAnyAttributeLength) {
    // Only its first byte is inside the datagram; zeros are read after it.
    bytes_t bytes = datagram_t().route(RTM_NEWROUTE, -1, "").attribute(RTA_OIF, "\x05", 1);
    bytes.resize(bytes.size() - 3);
    const unsigned char first_byte_five[4] = {5, 0, 0, 0};
    std::int32_t wanted = 0;
    std::memcpy(&wanted, first_byte_five, 4);
    EXPECT_EQ(decoded_routes(bytes), strings{std::to_string(wanted) + " ::/0 via :: protocol 4"});
}

TEST_F(DecodeRoutes, ATrailingEndOfDumpIsSkippedWithItsLogLine) {
    verbosity = 2;
    EXPECT_EQ(decoded_routes(datagram_t().route(RTM_NEWROUTE, 2, "fe80::1").done()),
              strings{"2 ::/0 via fe80::1 protocol 4"});
    EXPECT_EQ(captured::log_texts(), strings{"Info: Skipping route msg with no idx"});
}

// It is a message like every other.
TEST_F(DecodeRoutes, AnEndOfDumpWithAttributesIsARoute) {
    const rtmsg header{};
    EXPECT_EQ(decoded_routes(datagram_t()
                                 .route(RTM_NEWROUTE, 2, "fe80::1")
                                 .message(NLMSG_DONE, &header, sizeof header)
                                 .attribute(RTA_OIF, 3)),
              (strings{"2 ::/0 via fe80::1 protocol 4", "3 ::/0 via :: protocol 0"}));
}

} // namespace
