// Link messages: which are reported, and which of their fields.
#include "netlink/decode.h"

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include <linux/if_arp.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <syslog.h>

#include "fakes/fake_libnl.h"
#include "fakes/log_capture.h"
#include "netlink/exact_buffer.h"

namespace {

using fake_libnl::bytes_t;
using fake_libnl::datagram_t;

std::vector<CKernInterface> decoded(const bytes_t &datagram) {
    const exact_buffer buffer(datagram);
    return decode_links(buffer.bytes(), buffer.length());
}

datagram_t &link_of_type(datagram_t &datagram, int type) {
    ifinfomsg header{};
    header.ifi_type = static_cast<unsigned short>(type);
    header.ifi_index = 1;
    return datagram.message(RTM_NEWLINK, &header, sizeof header)
        .attribute(IFLA_IFNAME, "lo")
        .attribute(IFLA_ADDRESS, "\0\0\0\0\0", 6);
}

class DecodeLinks : public DaemonTest {};

TEST_F(DecodeLinks, AnEmptyDatagramYieldsNothing) {
    verbosity = 9;
    EXPECT_TRUE(decoded({}).empty());
    EXPECT_TRUE(captured::log().empty());
}

TEST_F(DecodeLinks, ALinkIsItsIndexNameAndHardwareAddress) {
    const auto links =
        decoded(datagram_t().link(RTM_NEWLINK, 2, "eth0", {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e}));
    ASSERT_EQ(links.size(), 1U);
    EXPECT_EQ(links[0].ifindex, 2);
    EXPECT_EQ(links[0].name, "eth0");
    EXPECT_EQ(links[0].hwaddr, "00:1a:2b:3c:4d:5e");
}

TEST_F(DecodeLinks, SeveralLinksComeInTheirOrder) {
    const auto links = decoded(datagram_t()
                                   .link(RTM_NEWLINK, 9, "eth9")
                                   .link(RTM_NEWLINK, 3, "wlan0")
                                   .link(RTM_DELLINK, 5, "veth5"));
    ASSERT_EQ(links.size(), 3U);
    EXPECT_EQ(links[0].name, "eth9");
    EXPECT_EQ(links[1].name, "wlan0");
    EXPECT_EQ(links[2].name, "veth5");
    EXPECT_EQ(links[2].ifindex, 5);
}

TEST_F(DecodeLinks, TheMessageTypeIsIgnored) {
    for (const int type :
         {int{RTM_NEWLINK}, int{RTM_DELLINK}, int{RTM_SETLINK}, int{RTM_NEWADDR}, 0}) {
        EXPECT_EQ(decoded(datagram_t().link(type, 2, "eth0")).size(), 1U) << type;
    }
}

TEST_F(DecodeLinks, TheFamilyIsIgnored) {
    for (const int family : {AF_UNSPEC, AF_BRIDGE, AF_INET}) {
        bytes_t bytes = datagram_t().link(RTM_DELLINK, 2, "eth0");
        bytes[NLMSG_HDRLEN] = static_cast<unsigned char>(family);
        EXPECT_EQ(decoded(bytes).size(), 1U) << family;
    }
}

TEST_F(DecodeLinks, LoopbackIsIgnoredWithItsTypeInTheLog) {
    datagram_t loopback;
    link_of_type(loopback, ARPHRD_LOOPBACK);
    EXPECT_TRUE(decoded(loopback).empty());
    expect_logged_at(2, LOG_INFO, "Info: Ignoring unknown interface type 772",
                     [&loopback] { decoded(loopback); });
}

TEST_F(DecodeLinks, OtherKindsAreIgnoredAndTheNextLinkIsStillDecoded) {
    for (const int type : {0, 2, 768, 776, 65534}) {
        verbosity = 2;
        captured::clear();
        datagram_t datagram;
        link_of_type(datagram, type).link(RTM_NEWLINK, 2, "eth0");
        const auto links = decoded(datagram);
        ASSERT_EQ(links.size(), 1U) << type;
        EXPECT_EQ(links[0].name, "eth0");
        EXPECT_EQ(captured::log_texts(),
                  (std::vector<std::string>{"Info: Ignoring unknown interface type " +
                                            std::to_string(type)}));
    }
}

TEST_F(DecodeLinks, ALinkWithoutNameOrAddressIsSkipped) {
    const bytes_t nameless = datagram_t().link(RTM_NEWLINK, 2, "");
    const bytes_t addressless = datagram_t().link(RTM_NEWLINK, 2, "eth0", {});
    const bytes_t bare = datagram_t().link(RTM_NEWLINK, 2, "", {});
    for (const auto &datagram : {nameless, addressless, bare}) {
        EXPECT_TRUE(decoded(datagram).empty());
        expect_logged_at(2, LOG_INFO, "Info: Skipping link msg with no addr/name",
                         [&datagram] { decoded(datagram); });
    }
}

TEST_F(DecodeLinks, ASkippedLinkDoesNotLendItsAttributesToTheNext) {
    const auto links = decoded(datagram_t()
                                   .link(RTM_NEWLINK, 2, "eth0", {})
                                   .link(RTM_NEWLINK, 3, "")
                                   .link(RTM_NEWLINK, 4, "eth2"));
    ASSERT_EQ(links.size(), 1U);
    EXPECT_EQ(links[0].ifindex, 4);
    EXPECT_EQ(links[0].name, "eth2");
}

TEST_F(DecodeLinks, ADecodedLinkLogsNothing) {
    verbosity = 9;
    decoded(datagram_t().link(RTM_NEWLINK, 2, "eth0"));
    EXPECT_TRUE(captured::log().empty());
}

TEST_F(DecodeLinks, TheLastOfRepeatedAttributesIsUsed) {
    const auto links = decoded(datagram_t()
                                   .link(RTM_NEWLINK, 2, "old", {1, 1, 1, 1, 1, 1})
                                   .attribute(IFLA_IFNAME, "eth0")
                                   .attribute(IFLA_ADDRESS, "\x02\x02\x02\x02\x02\x02", 6));
    ASSERT_EQ(links.size(), 1U);
    EXPECT_EQ(links[0].name, "eth0");
    EXPECT_EQ(links[0].hwaddr, "02:02:02:02:02:02");
}

TEST_F(DecodeLinks, UnusedAttributesAreSkipped) {
    const auto links = decoded(datagram_t()
                                   .link(RTM_NEWLINK, 2, "eth0", {2, 0, 0, 0, 0, 1})
                                   .attribute(IFLA_MTU, 1500)
                                   .attribute(IFLA_BROADCAST, "\xff\xff\xff\xff\xff\xff", 6)
                                   .attribute(IFLA_QDISC, "noqueue"));
    ASSERT_EQ(links.size(), 1U);
    EXPECT_EQ(links[0].name, "eth0");
    EXPECT_EQ(links[0].hwaddr, "02:00:00:00:00:01");
}

TEST_F(DecodeLinks, ANameEndsAtItsFirstNul) {
    const auto links =
        decoded(datagram_t().link(RTM_NEWLINK, 2, "").attribute(IFLA_IFNAME, "eth0\0junk", 10));
    ASSERT_EQ(links.size(), 1U);
    EXPECT_EQ(links[0].name, "eth0");
}

TEST_F(DecodeLinks, AnEmptyNameIsAName) {
    const auto links = decoded(datagram_t().link(RTM_NEWLINK, 2, "").attribute(IFLA_IFNAME, "", 1));
    ASSERT_EQ(links.size(), 1U);
    EXPECT_EQ(links[0].name, "");
}

TEST_F(DecodeLinks, ANameWithoutItsNulEndsWithTheDatagram) {
    const auto links =
        decoded(datagram_t().link(RTM_NEWLINK, 2, "").attribute(IFLA_IFNAME, "eth0", 4));
    ASSERT_EQ(links.size(), 1U);
    EXPECT_EQ(links[0].name, "eth0");
}

TEST_F(DecodeLinks, ANameMayBeOfAnyLength) {
    // The kernel's own limit for a link's name is 15 characters.
    for (const std::size_t size : {15U, 16U, 17U, 31U, 255U, 5000U}) {
        const std::string name(size, 'x');
        const auto links = decoded(datagram_t().link(RTM_NEWLINK, 2, name));
        ASSERT_EQ(links.size(), 1U) << size;
        EXPECT_EQ(links[0].name, name);
    }
}

TEST_F(DecodeLinks, ATrailingEndOfDumpIsIgnoredWithItsLogLine) {
    verbosity = 2;
    const auto links = decoded(datagram_t().link(RTM_NEWLINK, 2, "eth0").done());
    ASSERT_EQ(links.size(), 1U);
    EXPECT_EQ(captured::log_texts(),
              (std::vector<std::string>{"Info: Ignoring unknown interface type 0"}));
}

TEST_F(DecodeLinks, SixBytesOfAHardwareAddressAreReadForAnyLength) {
    // Two bytes, then the following bytes (padding and the next attribute).
    const bytes_t bytes =
        datagram_t().link(RTM_NEWLINK, 2, "eth0", {}).attribute(IFLA_ADDRESS, "\xaa\xbb", 2);
    const auto links = decoded(bytes);
    ASSERT_EQ(links.size(), 1U);
    EXPECT_EQ(links[0].hwaddr, "aa:bb:00:00:00:00"); // zeros after the datagram
    const std::array<unsigned char, 20> infiniband = {1, 2, 3, 4, 5, 6, 7, 8};
    const auto longer = decoded(datagram_t()
                                    .link(RTM_NEWLINK, 2, "eth0", {})
                                    .attribute(IFLA_ADDRESS, infiniband.data(), 20));
    ASSERT_EQ(longer.size(), 1U);
    EXPECT_EQ(longer[0].hwaddr, "01:02:03:04:05:06");
}

TEST_F(DecodeLinks, HardwareAddressesAreSpelledInLowerCaseWithTwoDigitsEach) {
    const std::array<unsigned char, 6> example = {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e};
    EXPECT_EQ(mac_to_str(example.data()), "00:1a:2b:3c:4d:5e");
    const std::array<unsigned char, 6> high = {0xff, 0xfe, 0xab, 0xCD, 0x00, 0x09};
    EXPECT_EQ(mac_to_str(high.data()), "ff:fe:ab:cd:00:09");
}

} // namespace
