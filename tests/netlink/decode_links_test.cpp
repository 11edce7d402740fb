// Link messages: which are reported, and which of their fields.
#include <array>

#include <linux/if_arp.h>
#include <linux/rtnetlink.h>
#include <syslog.h>

#include "netlink/decoded_text.h"

namespace {

using fake_libnl::bytes_t;
using fake_libnl::datagram_t;

// With the hardware address that datagram_t::link gives a link.
std::string link_of(const std::string &index_and_name) {
    return index_and_name + " 02:00:00:00:00:01";
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

TEST_F(DecodeLinks, ALinkIsItsIndexNameAndHardwareAddress) {
    verbosity = 9;
    EXPECT_EQ(decoded_links({}), strings{});
    EXPECT_EQ(decoded_links(
                  datagram_t().link(RTM_NEWLINK, 2, "eth0", {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e})),
              strings{"2 eth0 00:1a:2b:3c:4d:5e"});
    EXPECT_TRUE(captured::log().empty());
}

TEST_F(DecodeLinks, SeveralLinksComeInTheirOrder) {
    EXPECT_EQ(decoded_links(datagram_t()
                                .link(RTM_NEWLINK, 9, "eth9")
                                .link(RTM_NEWLINK, 3, "wlan0")
                                .link(RTM_DELLINK, 5, "veth5")),
              (strings{link_of("9 eth9"), link_of("3 wlan0"), link_of("5 veth5")}));
}

TEST_F(DecodeLinks, TheMessageTypeIsIgnored) {
    for (const int type :
         {int{RTM_NEWLINK}, int{RTM_DELLINK}, int{RTM_SETLINK}, int{RTM_NEWADDR}, 0}) {
        EXPECT_EQ(decoded_links(datagram_t().link(type, 2, "eth0")).size(), 1U) << type;
    }
}

TEST_F(DecodeLinks, TheFamilyIsIgnored) {
    for (const int family : {AF_UNSPEC, AF_BRIDGE, AF_INET}) {
        bytes_t bytes = datagram_t().link(RTM_DELLINK, 2, "eth0");
        bytes[NLMSG_HDRLEN] = static_cast<unsigned char>(family);
        EXPECT_EQ(decoded_links(bytes).size(), 1U) << family;
    }
}

TEST_F(DecodeLinks, OtherKindsAreIgnoredAndTheNextLinkIsStillDecoded) {
    for (const int type : {0, 2, 768, int{ARPHRD_LOOPBACK}, 776, 65534}) {
        const std::string line = "Info: Ignoring unknown interface type " + std::to_string(type);
        datagram_t datagram;
        link_of_type(datagram, type).link(RTM_NEWLINK, 2, "eth0");
        expect_logged_at(2, LOG_INFO, line, [&datagram] { decoded_links(datagram); });
        verbosity = 2;
        captured::clear();
        EXPECT_EQ(decoded_links(datagram), strings{link_of("2 eth0")}) << type;
        EXPECT_EQ(captured::log_texts(), strings{line});
    }
}

TEST_F(DecodeLinks, ALinkWithoutNameOrAddressIsSkipped) {
    const bytes_t nameless = datagram_t().link(RTM_NEWLINK, 2, "");
    const bytes_t addressless = datagram_t().link(RTM_NEWLINK, 2, "eth0", {});
    const bytes_t bare = datagram_t().link(RTM_NEWLINK, 2, "", {});
    for (const auto &datagram : {nameless, addressless, bare}) {
        EXPECT_EQ(decoded_links(datagram), strings{});
        expect_info_at(2, "Skipping link msg with no addr/name",
                       [&datagram] { decoded_links(datagram); });
    }
}

TEST_F(DecodeLinks, ASkippedLinkDoesNotLendItsAttributesToTheNext) {
    EXPECT_EQ(decoded_links(datagram_t()
                                .link(RTM_NEWLINK, 2, "eth0", {})
                                .link(RTM_NEWLINK, 3, "")
                                .link(RTM_NEWLINK, 4, "eth2")),
              strings{link_of("4 eth2")});
}

TEST_F(DecodeLinks, TheLastOfRepeatedAttributesIsUsed) {
    EXPECT_EQ(decoded_links(datagram_t()
                                .link(RTM_NEWLINK, 2, "old", {1, 1, 1, 1, 1, 1})
                                .attribute(IFLA_IFNAME, "eth0")
                                .attribute(IFLA_ADDRESS, "\x02\x02\x02\x02\x02\x02", 6)),
              strings{"2 eth0 02:02:02:02:02:02"});
}

TEST_F(DecodeLinks, UnusedAttributesAreSkipped) {
    EXPECT_EQ(decoded_links(datagram_t()
                                .link(RTM_NEWLINK, 2, "eth0")
                                .attribute(IFLA_MTU, 1500)
                                .attribute(IFLA_BROADCAST, "\xff\xff\xff\xff\xff\xff", 6)
                                .attribute(IFLA_QDISC, "noqueue")),
              strings{link_of("2 eth0")});
}

TEST_F(DecodeLinks, ANameEndsAtItsFirstNulOrWithTheDatagram) {
    const struct {
        const char *bytes;
        std::size_t size;
        const char *name;
    } rows[] = {{"eth0\0junk", 10, "eth0"}, {"", 1, ""}, {"eth0", 4, "eth0"}};
    for (const auto &one : rows) {
        EXPECT_EQ(
            decoded_links(
                datagram_t().link(RTM_NEWLINK, 2, "").attribute(IFLA_IFNAME, one.bytes, one.size)),
            strings{link_of(std::string("2 ") + one.name)})
            << one.size;
    }
}

TEST_F(DecodeLinks, ANameMayBeOfAnyLength) {
    // The kernel's own limit for a link's name is 15 characters.
    for (const std::size_t size : {15U, 16U, 17U, 31U, 255U, 5000U}) {
        const std::string name(size, 'x');
        EXPECT_EQ(decoded_links(datagram_t().link(RTM_NEWLINK, 2, name)),
                  strings{link_of("2 " + name)});
    }
}

TEST_F(DecodeLinks, ATrailingEndOfDumpIsIgnoredWithItsLogLine) {
    verbosity = 2;
    EXPECT_EQ(decoded_links(datagram_t().link(RTM_NEWLINK, 2, "eth0").done()),
              strings{link_of("2 eth0")});
    EXPECT_EQ(captured::log_texts(), strings{"Info: Ignoring unknown interface type 0"});
}

TEST_F(DecodeLinks, SixBytesOfAHardwareAddressAreReadForAnyLength) {
    const std::array<unsigned char, 20> infiniband = {1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_EQ(decoded_links(datagram_t()
                                .link(RTM_NEWLINK, 2, "eth0", {})
                                .attribute(IFLA_ADDRESS, infiniband.data(), 20)),
              strings{"2 eth0 01:02:03:04:05:06"});
    // Zeros are read after the datagram.
    EXPECT_EQ(
        decoded_links(
            datagram_t().link(RTM_NEWLINK, 2, "eth0", {}).attribute(IFLA_ADDRESS, "\xaa\xbb", 2)),
        strings{"2 eth0 aa:bb:00:00:00:00"});
}

TEST_F(DecodeLinks, HardwareAddressesAreSpelledInLowerCaseWithTwoDigitsEach) {
    const std::array<unsigned char, 6> example = {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e};
    EXPECT_EQ(mac_to_str(example.data()), "00:1a:2b:3c:4d:5e");
    const std::array<unsigned char, 6> high = {0xff, 0xfe, 0xab, 0xCD, 0x00, 0x09};
    EXPECT_EQ(mac_to_str(high.data()), "ff:fe:ab:cd:00:09");
}

} // namespace
