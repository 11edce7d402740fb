// Address messages.
#include <cstring>

#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <syslog.h>

#include "netlink/decoded_text.h"

namespace {

using fake_libnl::addr;
using fake_libnl::bytes_t;
using fake_libnl::datagram_t;

class DecodeAddrs : public DaemonTest {};

TEST_F(DecodeAddrs, AnAddressIsItsInterfaceScopePrefixLengthAndBytes) {
    verbosity = 9;
    EXPECT_EQ(decoded_addrs({}), strings{});
    EXPECT_EQ(decoded_addrs(datagram_t().address(RTM_NEWADDR, 70000, "fe80::1:2", 128, 253)),
              strings{"70000 fe80::1:2/128 scope 253"});
    EXPECT_TRUE(captured::log().empty());
}

TEST_F(DecodeAddrs, SeveralMessagesYieldOneRecordEachInOrder) {
    verbosity = 2;
    EXPECT_EQ(decoded_addrs(datagram_t()
                                .address(RTM_NEWADDR, 3, "2001:db8::3", 64)
                                .address(RTM_NEWADDR, 2, "", 64)
                                .address(RTM_NEWADDR, 2, "2001:db8::1", 48)
                                .address(RTM_NEWADDR, 3, "2001:db8::3", 64)),
              (strings{"3 2001:db8::3/64 scope 0", "2 2001:db8::1/48 scope 0",
                       "3 2001:db8::3/64 scope 0"}));
    EXPECT_EQ(captured::log_count("Info: Skipping addr msg with no addr"), 1U);
}

TEST_F(DecodeAddrs, AMessageWithOnlyALocalAddressIsSkipped) {
    const bytes_t datagram =
        datagram_t().address(RTM_NEWADDR, 2, "", 64).attribute(IFA_LOCAL, addr("2001:db8::9"));
    EXPECT_EQ(decoded_addrs(datagram), strings{});
    expect_info_at(2, "Skipping addr msg with no addr", [&datagram] { decoded_addrs(datagram); });
}

TEST_F(DecodeAddrs, LocalAddressLabelAndCacheInfoAreIgnored) {
    const ifa_cacheinfo cache{};
    EXPECT_EQ(decoded_addrs(datagram_t()
                                .address(RTM_NEWADDR, 2, "2001:db8::5", 64)
                                .attribute(IFA_LOCAL, addr("2001:db8::9"))
                                .attribute(IFA_LABEL, "eth0")
                                .attribute(IFA_CACHEINFO, &cache, sizeof cache)),
              strings{"2 2001:db8::5/64 scope 0"});
}

TEST_F(DecodeAddrs, TheLastOfRepeatedAddressesIsUsed) {
    EXPECT_EQ(decoded_addrs(datagram_t()
                                .address(RTM_NEWADDR, 2, "2001:db8::1", 64)
                                .attribute(IFA_ADDRESS, addr("2001:db8::2"))),
              strings{"2 2001:db8::2/64 scope 0"});
}

TEST_F(DecodeAddrs, TypeFamilyAndFlagsAreIgnored) {
    for (const int type : {int{RTM_NEWADDR}, int{RTM_DELADDR}, int{RTM_NEWROUTE}, 0}) {
        ifaddrmsg header{};
        header.ifa_family = AF_INET;
        header.ifa_flags = 0xff;
        header.ifa_index = 2;
        EXPECT_EQ(decoded_addrs(datagram_t()
                                    .message(type, &header, sizeof header)
                                    .attribute(IFA_ADDRESS, addr("2001:db8::1"))),
                  strings{"2 2001:db8::1/0 scope 0"})
            << type;
    }
}

TEST_F(DecodeAddrs, SixteenBytesAreCopiedForAnyAttributeLength) {
    // The datagram ends after two bytes of the address; zeros are read after it.
    EXPECT_EQ(
        decoded_addrs(
            datagram_t().address(RTM_NEWADDR, 2, "", 64).attribute(IFA_ADDRESS, "\x20\x01", 2)),
        strings{"2 2001::/64 scope 0"});
    // No bytes of the address: the next attribute's header and 12 of its bytes are read.
    in6_addr wanted{};
    const rtattr following{20, 99};
    const in6_addr payload = addr("2001:db8::1");
    std::memcpy(&wanted, &following, sizeof following);
    std::memcpy(wanted.s6_addr + sizeof following, &payload, sizeof wanted - sizeof following);
    EXPECT_EQ(decoded_addrs(datagram_t()
                                .address(RTM_NEWADDR, 2, "", 64)
                                .attribute(IFA_ADDRESS, "", 0)
                                .attribute(99, payload)),
              strings{"2 " + text_of(wanted) + "/64 scope 0"});
}

TEST_F(DecodeAddrs, ATrailingEndOfDumpIsSkippedWithItsLogLine) {
    verbosity = 2;
    EXPECT_EQ(decoded_addrs(datagram_t().address(RTM_NEWADDR, 2, "fe80::1", 64, 253).done()),
              strings{"2 fe80::1/64 scope 253"});
    EXPECT_EQ(captured::log_texts(), strings{"Info: Skipping addr msg with no addr"});
}

} // namespace
