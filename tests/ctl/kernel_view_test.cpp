// What the tool reads from the kernel's messages in addition to the daemon's decoders.
#include "ctl/kernel_view.h"

#include <algorithm>
#include <cstring>

#include <gtest/gtest.h>
#include <linux/if.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/ipv6.h>
#include <linux/rtnetlink.h>

#include "fakes/fake_libnl.h"
#include "netlink/exact_buffer.h"

namespace {

// One message: a family header and attributes.
class message_t {
public:
    template <typename Header>
    message_t(int type, const Header &header) {
        nlmsghdr start{};
        start.nlmsg_type = static_cast<std::uint16_t>(type);
        append(&start, sizeof start);
        append(&header, sizeof header);
    }

    message_t &attribute(int type, const void *data, std::size_t size) {
        rtattr start{};
        start.rta_type = static_cast<std::uint16_t>(type);
        start.rta_len = static_cast<std::uint16_t>(sizeof start + size);
        append(&start, sizeof start);
        append(data, size);
        bytes.resize((bytes.size() + 3) / 4 * 4);
        return *this;
    }
    template <typename Value>
    message_t &value(int type, const Value &content) {
        return attribute(type, &content, sizeof content);
    }

    // Decodes the message, cut to `length` bytes.
    template <typename Record>
    Record read(Record (*reader)(const unsigned char *, int), std::size_t length = 1 << 16) {
        const auto whole = static_cast<std::uint32_t>(bytes.size());
        std::memcpy(bytes.data(), &whole, sizeof whole);
        fake_libnl::bytes_t there(bytes);
        there.resize(std::min(length, bytes.size()));
        const exact_buffer buffer(there, true);
        return reader(buffer.bytes(), buffer.length());
    }

private:
    void append(const void *data, std::size_t size) {
        const auto *start = static_cast<const unsigned char *>(data);
        bytes.insert(bytes.end(), start, start + size);
    }
    fake_libnl::bytes_t bytes;
};

const in6_addr some_address{{{0x20, 1, 0xd, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 5}}};

ifaddrmsg address_header() {
    ifaddrmsg header{};
    header.ifa_index = 7;
    header.ifa_prefixlen = 64;
    header.ifa_flags = IFA_F_PERMANENT;
    return header;
}

TEST(KernelAddress, HasItsFlagsAndTimes) {
    ifa_cacheinfo times{};
    times.ifa_valid = 100;
    times.ifa_prefered = 50;
    const auto address = message_t(RTM_NEWADDR, address_header())
                             .value(IFA_ADDRESS, some_address)
                             .value(IFA_CACHEINFO, times)
                             .value(IFA_FLAGS, std::uint32_t{IFA_F_TENTATIVE | 0x100})
                             .value(11, std::uint8_t{2})
                             .read(ctl::address_of_message);
    EXPECT_TRUE(address.has_address);
    EXPECT_EQ(address.address.ifindex, 7);
    EXPECT_EQ(address.address.prefix_len, 64);
    EXPECT_EQ(address.flags, IFA_F_TENTATIVE | 0x100U);
    EXPECT_EQ(address.valid, 100U);
    EXPECT_EQ(address.preferred, 50U);
    EXPECT_EQ(address.origin, 2);
    EXPECT_FALSE(address.has_peer);
}

TEST(KernelAddress, WithoutThemTheHeadersFlagsAreUsedAndItNeverExpires) {
    const auto address = message_t(RTM_NEWADDR, address_header())
                             .value(IFA_ADDRESS, some_address)
                             .value(IFA_LOCAL, some_address)
                             .read(ctl::address_of_message);
    EXPECT_EQ(address.flags, static_cast<std::uint32_t>(IFA_F_PERMANENT));
    EXPECT_EQ(address.valid, ctl::forever);
    EXPECT_TRUE(address.has_peer);
}

TEST(KernelAddress, WithoutItsBytesIsStillListed) {
    const auto address = message_t(RTM_NEWADDR, address_header()).read(ctl::address_of_message);
    EXPECT_FALSE(address.has_address);
    EXPECT_EQ(address.address.ifindex, 7);
}

TEST(KernelLink, HasNameKindAndState) {
    ifinfomsg header{};
    header.ifi_type = 1;
    header.ifi_index = 3;
    header.ifi_flags = IFF_UP;
    const unsigned char mac[6] = {2, 0, 0, 0, 0, 5};
    const auto link = message_t(RTM_NEWLINK, header)
                          .attribute(IFLA_IFNAME, "eth0", 5)
                          .value(IFLA_MTU, std::uint32_t{1280})
                          .value(IFLA_ADDRESS, mac)
                          .read(ctl::link_of_message);
    EXPECT_EQ(link.index, 3);
    EXPECT_EQ(link.name, "eth0");
    EXPECT_EQ(link.mtu, 1280U);
    EXPECT_EQ(link.hwaddr, "02:00:00:00:00:05");
    EXPECT_TRUE(link.ethernet);
    EXPECT_TRUE(link.up);
    EXPECT_FALSE(link.carrier);
    header.ifi_flags = IFF_UP | IFF_RUNNING;
    header.ifi_type = 772;
    const auto other =
        message_t(RTM_NEWLINK, header).attribute(IFLA_IFNAME, "lo", 3).read(ctl::link_of_message);
    EXPECT_TRUE(other.carrier);
    EXPECT_FALSE(other.ethernet);
    EXPECT_EQ(other.name, "lo");
    EXPECT_EQ(other.hwaddr, "");
}

// Nested attributes, each with its header.
class nest_t {
public:
    nest_t &attribute(int type, const void *data, std::size_t size) {
        const rtattr start{static_cast<std::uint16_t>(sizeof(rtattr) + size),
                           static_cast<std::uint16_t>(type)};
        const auto append = [&](const void *from, std::size_t length) {
            const auto *first = static_cast<const unsigned char *>(from);
            bytes.insert(bytes.end(), first, first + length);
        };
        append(&start, sizeof start);
        append(data, size);
        bytes.resize((bytes.size() + 3) / 4 * 4);
        return *this;
    }
    nest_t &inside(int type, const nest_t &part) {
        return attribute(type | NLA_F_NESTED, part.bytes.data(), part.bytes.size());
    }
    fake_libnl::bytes_t bytes;
};

ctl::kernel_link_t link_with(int type, const nest_t &part, std::size_t length = 1 << 16) {
    return message_t(RTM_NEWLINK, ifinfomsg{})
        .attribute(type, part.bytes.data(), part.bytes.size())
        .read(ctl::link_of_message, length);
}

nest_t ipv6_part(std::size_t settings, std::int32_t refused) {
    std::vector<std::int32_t> values(settings);
    if (settings > DEVCONF_DISABLE_IPV6) {
        values[DEVCONF_DISABLE_IPV6] = refused;
    }
    return nest_t()
        .inside(AF_INET, nest_t())
        .inside(AF_INET6, nest_t()
                              .attribute(IFLA_INET6_FLAGS, "abcd", 4)
                              .attribute(IFLA_INET6_CONF, values.data(), 4 * values.size()));
}

TEST(KernelLink, SaysWhetherItHasIpv6) {
    constexpr std::size_t settings = DEVCONF_DISABLE_IPV6 + 1;
    const auto normal = link_with(IFLA_AF_SPEC, ipv6_part(settings, 0));
    EXPECT_TRUE(normal.has_ipv6);
    EXPECT_FALSE(normal.ipv6_refused);
    EXPECT_TRUE(link_with(IFLA_AF_SPEC | NLA_F_NESTED, ipv6_part(settings, 1)).ipv6_refused);
    EXPECT_FALSE(link_with(IFLA_AF_SPEC, ipv6_part(settings - 1, 1)).ipv6_refused);
    EXPECT_FALSE(link_with(IFLA_AF_SPEC, nest_t().inside(AF_INET, nest_t())).has_ipv6);
}

TEST(KernelLink, SaysWhetherItIsPartOfAnother) {
    const auto part_of = [](const char *kind) {
        return link_with(IFLA_LINKINFO,
                         nest_t()
                             .attribute(IFLA_INFO_KIND, "veth", 5)
                             .attribute(IFLA_INFO_SLAVE_KIND, kind, std::strlen(kind) + 1))
            .is_part;
    };
    EXPECT_TRUE(part_of("bridge"));
    EXPECT_TRUE(part_of("bond"));
    EXPECT_TRUE(part_of("vrfs"));
    EXPECT_FALSE(part_of("vrf")) << "it has addresses of its own";
    EXPECT_FALSE(link_with(IFLA_LINKINFO, nest_t().attribute(IFLA_INFO_KIND, "veth", 5)).is_part);
}

TEST(KernelRoute, HasItsTableAndItsShape) {
    rtmsg header{};
    header.rtm_table = RT_TABLE_COMPAT;
    header.rtm_protocol = RTPROT_STATIC;
    header.rtm_type = RTN_UNICAST;
    const auto route = message_t(RTM_NEWROUTE, header)
                           .value(RTA_TABLE, std::uint32_t{1000})
                           .value(RTA_PRIORITY, std::uint32_t{7})
                           .value(RTA_OIF, std::int32_t{3})
                           .value(RTA_GATEWAY, some_address)
                           .read(ctl::routes_of_message)
                           .at(0);
    EXPECT_EQ(route.table, 1000U);
    EXPECT_EQ(route.metric, 7U);
    EXPECT_TRUE(route.has_index);
    EXPECT_FALSE(route.multipath);
    EXPECT_EQ(route.route.ifindex, 3);
    EXPECT_TRUE(has_gateway(route.route));

    struct hop_t {
        rtnexthop hop{};
        rtattr attribute{sizeof(rtattr) + sizeof(in6_addr), RTA_GATEWAY};
        in6_addr gateway{};
    } hops[2];
    for (hop_t &one : hops) {
        one.hop.rtnh_len = sizeof one;
        one.hop.rtnh_ifindex = &one == hops ? 4 : 5;
        one.gateway.s6_addr[15] = &one == hops ? 1 : 2;
    }
    const auto several =
        message_t(RTM_NEWROUTE, header).value(RTA_MULTIPATH, hops).read(ctl::routes_of_message);
    ASSERT_EQ(several.size(), 2U);
    for (const std::size_t i : {0U, 1U}) {
        EXPECT_FALSE(several[i].has_index);
        EXPECT_TRUE(several[i].multipath);
        EXPECT_EQ(several[i].route.ifindex, i == 0 ? 4 : 5);
        EXPECT_EQ(several[i].route.gateway.s6_addr[15], i == 0 ? 1 : 2);
        EXPECT_EQ(several[i].route.protocol, RTPROT_STATIC);
    }
}

// The address sanitizer reports every byte that is read beyond the message.
TEST(KernelMessages, AreNeverReadBeyondTheirEnd) {
    for (std::size_t length = 0; length < 100; ++length) {
        message_t(RTM_NEWADDR, address_header())
            .value(IFA_ADDRESS, some_address)
            .value(IFA_CACHEINFO, ifa_cacheinfo{})
            .value(IFA_FLAGS, std::uint32_t{1})
            .read(ctl::address_of_message, length);
        message_t(RTM_NEWLINK, ifinfomsg{})
            .attribute(IFLA_IFNAME, "0123456789abcdefghij", 20)
            .read(ctl::link_of_message, length);
        link_with(IFLA_AF_SPEC, ipv6_part(DEVCONF_DISABLE_IPV6 + 1, 1), length);
        link_with(IFLA_LINKINFO, nest_t().attribute(IFLA_INFO_SLAVE_KIND, "b", 1), length);
        message_t(RTM_NEWROUTE, rtmsg{})
            .value(RTA_DST, some_address)
            .value(RTA_MULTIPATH, rtnexthop{sizeof(rtnexthop) + 20, 0, 0, 0})
            .read(ctl::routes_of_message, length);
    }
}

} // namespace
