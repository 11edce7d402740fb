// Address messages.
#include "netlink/decode.h"

#include <cstring>
#include <string>
#include <vector>

#include <linux/if_addr.h>
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

std::vector<CKernAddress> decoded(const bytes_t &datagram) {
    const exact_buffer buffer(datagram);
    return decode_addrs(buffer.bytes(), buffer.length());
}

void expect_addr(const in6_addr &got, const std::string &text) {
    const in6_addr wanted = addr(text);
    EXPECT_EQ(std::memcmp(&got, &wanted, sizeof wanted), 0) << text;
}

class DecodeAddrs : public DaemonTest {};

TEST_F(DecodeAddrs, AnEmptyDatagramYieldsNothing) {
    verbosity = 9;
    EXPECT_TRUE(decoded({}).empty());
    EXPECT_TRUE(captured::log().empty());
}

TEST_F(DecodeAddrs, AnAddressIsItsInterfaceScopePrefixLengthAndBytes) {
    verbosity = 9;
    const auto addrs = decoded(datagram_t().address(RTM_NEWADDR, 70000, "fe80::1:2", 128, 253));
    ASSERT_EQ(addrs.size(), 1U);
    EXPECT_EQ(addrs[0].ifindex, 70000);
    EXPECT_EQ(addrs[0].scope, 253);
    EXPECT_EQ(addrs[0].prefix_len, 128);
    expect_addr(addrs[0].addr, "fe80::1:2");
    EXPECT_TRUE(captured::log().empty());
}

TEST_F(DecodeAddrs, SeveralMessagesYieldOneRecordEachInOrder) {
    verbosity = 2;
    const auto addrs = decoded(datagram_t()
                                   .address(RTM_NEWADDR, 3, "2001:db8::3", 64)
                                   .address(RTM_NEWADDR, 2, "", 64)
                                   .address(RTM_NEWADDR, 2, "2001:db8::1", 48)
                                   .address(RTM_NEWADDR, 3, "2001:db8::3", 64));
    ASSERT_EQ(addrs.size(), 3U);
    expect_addr(addrs[0].addr, "2001:db8::3");
    expect_addr(addrs[1].addr, "2001:db8::1");
    EXPECT_EQ(addrs[1].prefix_len, 48);
    expect_addr(addrs[2].addr, "2001:db8::3");
    EXPECT_EQ(captured::log_count("Info: Skipping addr msg with no addr"), 1U);
}

TEST_F(DecodeAddrs, AMessageWithOnlyALocalAddressIsSkipped) {
    const bytes_t datagram =
        datagram_t().address(RTM_NEWADDR, 2, "", 64).attribute(IFA_LOCAL, addr("2001:db8::9"));
    EXPECT_TRUE(decoded(datagram).empty());
    expect_logged_at(2, LOG_INFO, "Info: Skipping addr msg with no addr",
                     [&datagram] { decoded(datagram); });
}

TEST_F(DecodeAddrs, LocalAddressLabelAndCacheInfoAreIgnored) {
    const ifa_cacheinfo cache{};
    const auto addrs = decoded(datagram_t()
                                   .address(RTM_NEWADDR, 2, "2001:db8::5", 64)
                                   .attribute(IFA_LOCAL, addr("2001:db8::9"))
                                   .attribute(IFA_LABEL, "eth0")
                                   .attribute(IFA_CACHEINFO, &cache, sizeof cache));
    ASSERT_EQ(addrs.size(), 1U);
    expect_addr(addrs[0].addr, "2001:db8::5");
}

TEST_F(DecodeAddrs, TheLastOfRepeatedAddressesIsUsed) {
    const auto addrs = decoded(datagram_t()
                                   .address(RTM_NEWADDR, 2, "2001:db8::1", 64)
                                   .attribute(IFA_ADDRESS, addr("2001:db8::2")));
    ASSERT_EQ(addrs.size(), 1U);
    expect_addr(addrs[0].addr, "2001:db8::2");
}

TEST_F(DecodeAddrs, TypeFamilyAndFlagsAreIgnored) {
    for (const int type : {int{RTM_NEWADDR}, int{RTM_DELADDR}, int{RTM_NEWROUTE}, 0}) {
        ifaddrmsg header{};
        header.ifa_family = AF_INET;
        header.ifa_flags = 0xff;
        header.ifa_index = 2;
        const auto addrs = decoded(datagram_t()
                                       .message(type, &header, sizeof header)
                                       .attribute(IFA_ADDRESS, addr("2001:db8::1")));
        ASSERT_EQ(addrs.size(), 1U) << type;
        expect_addr(addrs[0].addr, "2001:db8::1");
    }
}

TEST_F(DecodeAddrs, SixteenBytesAreCopiedForAnyAttributeLength) {
    // The datagram ends after two bytes of the address; zeros are read after it.
    const auto cut =
        decoded(datagram_t().address(RTM_NEWADDR, 2, "", 64).attribute(IFA_ADDRESS, "\x20\x01", 2));
    ASSERT_EQ(cut.size(), 1U);
    expect_addr(cut[0].addr, "2001::");
    // No bytes of the address before 12 more bytes.
    const auto follows = decoded(datagram_t()
                                     .address(RTM_NEWADDR, 2, "", 64)
                                     .attribute(IFA_ADDRESS, "", 0)
                                     .attribute(99, addr("2001:db8::1")));
    ASSERT_EQ(follows.size(), 1U);
    bytes_t wanted(4);
    const rtattr following{20, 99};
    std::memcpy(wanted.data(), &following, 4);
    const bytes_t more = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0};
    wanted.insert(wanted.end(), more.begin(), more.end());
    EXPECT_EQ(std::memcmp(&follows[0].addr, wanted.data(), 16), 0);
}

TEST_F(DecodeAddrs, ATrailingEndOfDumpIsSkippedWithItsLogLine) {
    verbosity = 2;
    const auto addrs = decoded(datagram_t().address(RTM_NEWADDR, 2, "fe80::1", 64, 253).done());
    ASSERT_EQ(addrs.size(), 1U);
    EXPECT_EQ(captured::log_texts(),
              (std::vector<std::string>{"Info: Skipping addr msg with no addr"}));
}

} // namespace
