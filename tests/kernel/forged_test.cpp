// Messages that this kernel does not send by itself, sent to the daemon's socket by the test. The
// administrator of a network namespace may send to its groups, and the daemon does not check the
// sender.

#include <algorithm>
#include <cstring>
#include <random>

#include <linux/rtnetlink.h>

#include <arpa/inet.h>

#include "harness/world.h"

namespace {

class ForgedTest : public kt::KernelTest {
protected:
    void SetUp() override {
        add_eth(0);
        service.start();
        store.make_interface(1);
        start_daemon_and_wait();
        from = log().size();
    }

    void send(const kt::Message &message) { device.forge(RTNLGRP_LINK, message.bytes()); }

    kt::Message address_message(std::uint16_t type, unsigned char scope, unsigned char length) {
        ifaddrmsg header{};
        header.ifa_family = AF_INET6;
        header.ifa_scope = scope;
        header.ifa_prefixlen = length;
        header.ifa_index = static_cast<std::uint32_t>(device.index("eth0"));
        return kt::Message(type, 0).append(header);
    }

    static in6_addr bytes_of(const std::string &text) {
        in6_addr address{};
        inet_pton(AF_INET6, text.c_str(), &address);
        return address;
    }

    std::size_t from = 0;
};

TEST_F(ForgedTest, AnEndOfADumpThatNobodyAskedForIsWarnedAbout) {
    send(kt::Message(NLMSG_DONE, 0).append(0));
    send(kt::Message(NLMSG_DONE, 0).append(0));
    ASSERT_TRUE(settle());
    EXPECT_EQ(log().count("Info: Received netlink update (type 1)", from), 2U);
    EXPECT_EQ(
        log().count("Warning: Got NLMSG_DONE outside of a requested discovery operation...", from),
        2U);
    EXPECT_EQ(log().count_containing("void CSync::discover()", from), 0U);
}

TEST_F(ForgedTest, AnAnnouncementWithAnotherPrefixLengthRefreshesTheNode) {
    device.add_address("eth0", "2001:db8::7/64");
    ASSERT_TRUE(becomes([&] { return store.has_address(1, "2001:db8::7/64", "Automatic"); }));
    const std::string node = store.node_of(1, "2001:db8::7/64");
    const in6_addr address = bytes_of("2001:db8::7");
    // The kernel announces its address once more a little later, and would put the old length back.
    EXPECT_TRUE(becomes([&] {
        send(address_message(RTM_NEWADDR, RT_SCOPE_UNIVERSE, 56)
                 .attribute(IFA_ADDRESS, &address, sizeof address));
        return store.node_of(1, "2001:db8::7/56") == node &&
               store.node_of(1, "2001:db8::7/64").empty();
    }));
}

TEST_F(ForgedTest, ADeletionWithAnotherPrefixLengthLeavesTheStore) {
    device.add_address("eth0", "2001:db8::7/64");
    ASSERT_TRUE(becomes([&] { return store.has_address(1, "2001:db8::7/64", "Automatic"); }));
    const in6_addr address = bytes_of("2001:db8::7");
    send(address_message(RTM_DELADDR, RT_SCOPE_UNIVERSE, 56)
             .attribute(IFA_ADDRESS, &address, sizeof address));
    ASSERT_TRUE(settle());
    EXPECT_TRUE(store.has_address(1, "2001:db8::7/64", "Automatic"));
}

// Random bytes, in datagrams of every length: none may end the engine or make it read beyond the
// datagram.
TEST_F(ForgedTest, RandomBytesDoNotEndTheEngine) {
    std::mt19937 random(1);
    for (int i = 0; i < 1500; ++i) {
        std::vector<unsigned char> datagram(1 + random() % 120);
        for (auto &byte : datagram) {
            byte = static_cast<unsigned char>(random() % (random() % 3 == 0 ? 256 : 8));
        }
        nlmsghdr header{};
        header.nlmsg_len = random() % 4 == 0 ? static_cast<std::uint32_t>(random() % 80)
                                             : static_cast<std::uint32_t>(datagram.size());
        if (random() % 8 == 0) {
            header.nlmsg_len = 0xfffffff0U + static_cast<std::uint32_t>(random() % 16);
        }
        const std::uint16_t types[] = {16, 17, 19, 20, 21, 24, 25, 2, 3};
        header.nlmsg_type = types[random() % (sizeof types / sizeof *types)];
        // Not a request: the kernel gets the datagram as well and must not act on it.
        std::memcpy(datagram.data(), &header, std::min(datagram.size(), sizeof header));
        device.forge(RTNLGRP_LINK, datagram);
    }
    EXPECT_TRUE(settle());
    store.set_address(1, "s", "2001:db8::5/64");
    EXPECT_TRUE(becomes([&] { return device.has_address("eth0", "2001:db8::5/64"); }));
}

} // namespace
