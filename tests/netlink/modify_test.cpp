// The requests that change the kernel: each byte of them, and all their failures.
#include "netlink/channel.h"

#include <cstring>
#include <initializer_list>
#include <ostream>
#include <string>
#include <vector>

#include <linux/rtnetlink.h>
#include <syslog.h>

#include "fakes/engine_fixture.h"
#include "fakes/log_capture.h"

namespace {

using fake_libnl::addr;
using fake_libnl::bytes_t;

bytes_t cat(std::initializer_list<bytes_t> parts) {
    bytes_t all;
    for (const auto &part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

template <typename T>
bytes_t host_order(T value) {
    bytes_t bytes(sizeof value);
    std::memcpy(bytes.data(), &value, sizeof value);
    return bytes;
}

bytes_t u16(int value) {
    return host_order(static_cast<std::uint16_t>(value));
}
bytes_t u32(int value) {
    return host_order(static_cast<std::uint32_t>(value));
}
bytes_t ip(const std::string &text) {
    return host_order(addr(text));
}

// The attributes of a route, and of an address.
bytes_t route_attributes(int ifindex, const std::string &gateway) {
    return cat({u16(8), u16(4), u32(ifindex), u16(20), u16(5), ip(gateway)});
}
bytes_t addr_attribute(const std::string &text) {
    return cat({u16(20), u16(1), ip(text)});
}

class Modify : public DaemonTest {
protected:
    const fake_libnl::message_t &sent() {
        EXPECT_EQ(fake_libnl::state().changes.size(), 1U);
        return fake_libnl::state().changes.back();
    }
    CNetlink channel;
};

TEST_F(Modify, AddingARouteSendsNewrouteWithOutputInterfaceAndGateway) {
    channel.modify_route(kern_route(2, "fe80::1"), true);
    EXPECT_EQ(sent().type, 24);
    EXPECT_EQ(sent().flags, 0x401);
    EXPECT_EQ(sent().body,
              cat({{10, 0, 0, 0, 254, 4, 0, 1}, u32(0), route_attributes(2, "fe80::1")}));
}

TEST_F(Modify, DeletingARouteSendsDelrouteWithTheSameAttributes) {
    channel.modify_route(kern_route(2, "fe80::1"), false);
    EXPECT_EQ(sent().type, 25);
    EXPECT_EQ(sent().flags, 0x1);
    EXPECT_EQ(sent().body,
              cat({{10, 0, 0, 0, 254, 0, 255, 0}, u32(0), route_attributes(2, "fe80::1")}));
}

TEST_F(Modify, RoutesKeepTheirDestinationLengthButNeitherDestinationNorProtocol) {
    CKernRoute route = kern_route(7, "2001:db8::1");
    route.dst = addr("2001:db8:1::");
    route.dst_len = 48;
    route.protocol = 9;
    for (const bool add : {true, false}) {
        fake_libnl::state().changes.clear();
        channel.modify_route(route, add);
        EXPECT_EQ(sent().body.size(), 12U + 8U + 20U);
        EXPECT_EQ(sent().body[1], 48);
        EXPECT_EQ(sent().body[5], add ? 4 : 0);
        EXPECT_EQ(bytes_t(sent().body.begin() + 12, sent().body.end()),
                  route_attributes(7, "2001:db8::1"));
    }
}

TEST_F(Modify, AFullRouteIsSentByItsKernelSide) {
    CFullRoute route;
    route.ifindex = 3;
    route.gateway = addr("fe80::2");
    channel.modify_route(route, true);
    EXPECT_EQ(bytes_t(sent().body.begin() + 12, sent().body.end()), route_attributes(3, "fe80::2"));
}

TEST_F(Modify, AddingAnAddressSendsNewaddrWithoutTheRequestFlag) {
    channel.modify_addr(kern_addr(3, "2001:db8::5", 64, 0), true);
    EXPECT_EQ(sent().type, 20);
    EXPECT_EQ(sent().flags, 0xc00);
    EXPECT_EQ(sent().body, cat({{10, 64, 0, 0}, u32(3), addr_attribute("2001:db8::5")}));
}

TEST_F(Modify, DeletingAnAddressSendsDeladdrWithTheSameBody) {
    channel.modify_addr(kern_addr(3, "2001:db8::5", 64, 0), false);
    EXPECT_EQ(sent().type, 21);
    EXPECT_EQ(sent().flags, 0);
    EXPECT_EQ(sent().body, cat({{10, 64, 0, 0}, u32(3), addr_attribute("2001:db8::5")}));
}

TEST_F(Modify, AddressesCarryTheirScopeAndPrefixLength) {
    channel.modify_addr(kern_addr(70000, "fe80::5", 128, 253), true);
    EXPECT_EQ(sent().body, cat({{10, 128, 0, 253}, u32(70000), addr_attribute("fe80::5")}));
}

TEST_F(Modify, EachRequestIsAllocatedFilledSentAndFreedInThisOrder) {
    journal::clear();
    channel.modify_route(kern_route(2, "fe80::1"), true);
    channel.modify_addr(kern_addr(3, "fe80::5", 64, 253), false);
    const char *const calls[] = {"nlmsg_alloc_simple(24, 1025)",
                                 "nlmsg_append(",
                                 "nla_put(4, ",
                                 "nla_put(5, ",
                                 "nl_send_auto_complete(24)",
                                 "nlmsg_free()",
                                 "nlmsg_alloc_simple(21, 0)",
                                 "nlmsg_append(",
                                 "nla_put(1, ",
                                 "nl_send_auto_complete(21)",
                                 "nlmsg_free()"};
    ASSERT_EQ(journal::entries().size(), std::size(calls));
    for (std::size_t i = 0; i < std::size(calls); ++i) {
        EXPECT_EQ(journal::entries()[i].rfind(calls[i], 0), 0U) << journal::entries()[i];
    }
    // Both family headers are padded to 4.
    for (const auto &append : journal::matching("nlmsg_append(")) {
        EXPECT_EQ(append.substr(append.size() - 4), ", 4)");
    }
}

TEST_F(Modify, AnyNumberOfBytesSentIsASuccess) {
    for (const int sent : {1, 2, 1000}) {
        fake_libnl::state().send_auto_complete.then(sent).then(sent);
        EXPECT_NO_THROW(channel.modify_route(kern_route(2, "fe80::1"), true)) << sent;
        EXPECT_NO_THROW(channel.modify_addr(kern_addr(3, "2001:db8::5", 64, 0), true)) << sent;
    }
}

TEST_F(Modify, SuccessLogsNothing) {
    verbosity = 9;
    fake_libnl::state().send_auto_complete.then(1);
    fake_libnl::state().put.then(0).then(3); // only a negative result is a failure
    channel.modify_route(kern_route(2, "fe80::1"), true);
    EXPECT_TRUE(captured::log().empty());
    EXPECT_EQ(fake_libnl::state().changes.size(), 1U);
}

// Every row of failures, for both operations, adding and deleting.

struct failure_t {
    const char *name;
    bool route;
    void (*arm)();
    const char *line; // the log line, after the prefix
    const char *thrown;
    unsigned freed;
};

void PrintTo(const failure_t &param, std::ostream *out) {
    *out << param.name;
}

void fail_alloc() {
    fake_libnl::state().failing_message_allocs = 1;
}
void fail_append() {
    fake_libnl::state().append.then(-5);
}
void positive_append() {
    fake_libnl::state().append.then(1);
}
void fail_first_put() {
    fake_libnl::state().put.then(-5);
}
void fail_second_put() {
    fake_libnl::state().put.then(0).then(-5);
}
void fail_send() {
    fake_libnl::state().send_auto_complete.then(-13);
}
void send_nothing() {
    fake_libnl::state().send_auto_complete.then(0);
}

const failure_t failures[] = {
    {"RouteAllocation", true, fail_alloc, "modify_route: Couldn't allocate nlmsg",
     "nlmsg_alloc_simple", 0},
    {"RouteHeader", true, fail_append, "Can't append rtm to nl msg: -5", "nlmsg_append", 1},
    {"RouteHeaderPositive", true, positive_append, "Can't append rtm to nl msg: 1", "nlmsg_append",
     1},
    {"RouteFirstAttribute", true, fail_first_put, "Failed to append RTA attributes", "NLA_PUT", 1},
    {"RouteSecondAttribute", true, fail_second_put, "Failed to append RTA attributes", "NLA_PUT",
     1},
    {"RouteSend", true, fail_send, "Failed to send rtm message: -13", "nl_send_auto_complete", 1},
    {"RouteSendOfNothing", true, send_nothing, "Failed to send rtm message: 0",
     "nl_send_auto_complete", 1},
    {"AddrAllocation", false, fail_alloc, "Couldn't allocate nlmsg", "nlmsg_alloc_simple", 0},
    {"AddrHeader", false, fail_append, "Can't append ifa to nl msg: -5", "nlmsg_append", 1},
    {"AddrHeaderPositive", false, positive_append, "Can't append ifa to nl msg: 1", "nlmsg_append",
     1},
    {"AddrAttribute", false, fail_first_put, "Failed to append IFA_ADDRESS", "NLA_PUT", 1},
    {"AddrSend", false, fail_send, "Failed to send ifa message: -13", "nl_send_auto_complete", 1},
    {"AddrSendOfNothing", false, send_nothing, "Failed to send ifa message: 0",
     "nl_send_auto_complete", 1},
};

class ModifyFailure : public DaemonTest, public ::testing::WithParamInterface<failure_t> {
protected:
    void modify(bool add) {
        GetParam().arm();
        if (GetParam().route) {
            channel.modify_route(kern_route(2, "fe80::1"), add);
        } else {
            channel.modify_addr(kern_addr(3, "2001:db8::5", 64, 0), add);
        }
    }
    CNetlink channel;
};

TEST_P(ModifyFailure, ThrowsTheCallsNameAndFreesTheMessageExactlyOnce) {
    for (const bool add : {true, false}) {
        auto &fake = fake_libnl::state();
        fake.messages_freed = 0;
        EXPECT_EQ(thrown<netlink_err>([this, add] { modify(add); }), GetParam().thrown);
        EXPECT_EQ(fake.messages_freed, GetParam().freed);
        EXPECT_TRUE(fake.changes.empty());
    }
}

TEST_P(ModifyFailure, IsLoggedAtLevelOneBeforeTheMessageIsFreed) {
    for (const bool add : {true, false}) {
        expect_logged_at(1, LOG_ERR, std::string("Error: ") + GetParam().line,
                         [this, add] { modify(add); });
    }
    journal::clear();
    captured::clear();
    verbosity = 1;
    EXPECT_THROW(modify(true), netlink_err);
    EXPECT_EQ(captured::log().size(), 1U);
    if (GetParam().freed > 0) {
        EXPECT_LT(journal::find("log 3 "), journal::find("nlmsg_free()"));
    }
}

INSTANTIATE_TEST_SUITE_P(Rows, ModifyFailure, ::testing::ValuesIn(failures),
                         [](const auto &test) { return std::string(test.param.name); });

} // namespace
