// The channel's life, its descriptor and its three dump requests.
#include "netlink/channel.h"

#include <cstring>
#include <memory>
#include <new>
#include <ostream>
#include <string>
#include <type_traits>
#include <vector>

#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <syslog.h>

#include "fakes/engine_fixture.h"

namespace {

using entries_t = std::vector<std::string>;

class Channel : public DaemonTest {};

static_assert(!std::is_copy_constructible_v<CNetlink>, "a copy would free the socket twice");
static_assert(!std::is_copy_assignable_v<CNetlink>);
static_assert(!std::is_polymorphic_v<CNetlink>);
static_assert(std::is_base_of_v<std::runtime_error, netlink_err>);
static_assert(sizeof(netlink_err) == sizeof(std::runtime_error), "it adds no members");

TEST_F(Channel, ConnectsSubscribesToFourGroupsAndGoesNonBlockingInThisOrder) {
    const CNetlink channel;
    EXPECT_EQ(journal::entries(), (entries_t{"nl_socket_alloc()", "nl_connect(0)",
                                             "nl_socket_add_memberships(1, 9, 11, 18, 0)",
                                             "nl_socket_set_nonblocking()"}));
    EXPECT_EQ(fake_libnl::state().sockets_freed, 0U);
}

TEST_F(Channel, FreesItsSocketOnceWhenDestroyed) {
    { const CNetlink channel; }
    EXPECT_EQ(fake_libnl::state().sockets_freed, 1U);
    EXPECT_EQ(journal::entries().back(), "nl_socket_free()");
}

TEST_F(Channel, IsBadAllocWithoutALogLineWhenThereIsNoSocket) {
    verbosity = 9;
    fake_libnl::state().failing_socket_allocs = 1;
    EXPECT_THROW(CNetlink(), std::bad_alloc);
    EXPECT_TRUE(captured::log().empty());
    EXPECT_EQ(captured::standard_error(), "");
    EXPECT_EQ(journal::count("nl_connect("), 0U);
}

struct construction_failure_t {
    const char *name; // of the call, and the text that is thrown
    fake_libnl::results_t fake_libnl::state_t::*results;
    std::size_t calls; // made until then, without the socket's release
};

void PrintTo(const construction_failure_t &param, std::ostream *out) {
    *out << param.name;
}

const construction_failure_t construction_failures[] = {
    {"nl_connect", &fake_libnl::state_t::connect, 2},
    {"nl_socket_add_memberships", &fake_libnl::state_t::add_memberships, 3},
    {"nl_socket_set_nonblocking", &fake_libnl::state_t::set_nonblocking, 4},
};

class ChannelSetUp : public DaemonTest,
                     public ::testing::WithParamInterface<construction_failure_t> {};

TEST_P(ChannelSetUp, FailureFreesTheSocketThrowsTheCallsNameAndLogsNothing) {
    verbosity = 9;
    for (const int result : {-1, -22, 1}) {
        journal::clear();
        auto &fake = fake_libnl::state();
        fake.sockets_freed = 0;
        (fake.*GetParam().results).then(result);
        EXPECT_EQ(thrown<netlink_err>([] { const CNetlink channel; }), GetParam().name) << result;
        EXPECT_EQ(fake.sockets_freed, 1U) << result;
        ASSERT_EQ(journal::entries().size(), GetParam().calls + 1) << result;
        EXPECT_EQ(journal::entries().back(), "nl_socket_free()");
    }
    EXPECT_TRUE(captured::log().empty());
}

INSTANTIATE_TEST_SUITE_P(Steps, ChannelSetUp, ::testing::ValuesIn(construction_failures),
                         [](const auto &test) { return std::string(test.param.name); });

TEST_F(Channel, DescriptorIsTheSocketsAndMayBeZero) {
    const CNetlink channel;
    fake_libnl::state().get_fd.then(0).then(17);
    EXPECT_EQ(channel.fd(), 0);
    EXPECT_EQ(channel.fd(), 17);
}

TEST_F(Channel, NegativeDescriptorIsLoggedAndThrown) {
    const CNetlink channel;
    fake_libnl::state().get_fd.always(-7);
    EXPECT_EQ(thrown<netlink_err>([&channel] { channel.fd(); }), "nl_socket_get_fd");
    expect_logged_at(1, LOG_ERR, "Error: fd: nl_socket_get_fd(): -7", [&channel] { channel.fd(); });
}

// The three dump requests.

struct dump_request_t {
    const char *name;
    int (CNetlink::*request)();
    int type;
    std::size_t body_size;
};

void PrintTo(const dump_request_t &param, std::ostream *out) {
    *out << param.name;
}

const dump_request_t dump_requests[] = {
    {"request_links", &CNetlink::request_links, RTM_GETLINK, 16},
    {"request_addrs", &CNetlink::request_addrs, RTM_GETADDR, 8},
    {"request_routes", &CNetlink::request_routes, RTM_GETROUTE, 12},
};

class DumpRequest : public DaemonTest, public ::testing::WithParamInterface<dump_request_t> {
protected:
    int make() { return (channel.*GetParam().request)(); }
    CNetlink channel;
};

TEST_P(DumpRequest, SendsAZeroFilledHeaderOfTheIpv6FamilyWithTheRootFlagOnly) {
    make();
    ASSERT_EQ(fake_libnl::state().requests.size(), 1U);
    const auto &sent = fake_libnl::state().requests.front();
    EXPECT_EQ(sent.type, GetParam().type);
    EXPECT_EQ(sent.flags, 257);
    fake_libnl::bytes_t body(GetParam().body_size, 0);
    body.at(0) = AF_INET6;
    EXPECT_EQ(sent.body, body);
}

TEST_P(DumpRequest, GivesTheNumberOfBytesSentAndLogsNothing) {
    verbosity = 9;
    fake_libnl::state().send_simple.then(1).then(4711);
    EXPECT_EQ(make(), 1);
    EXPECT_EQ(make(), 4711);
    EXPECT_TRUE(captured::log().empty());
}

TEST_P(DumpRequest, ThatSendsNothingOrFailsIsLoggedUnderItsOwnNameAndThrown) {
    for (const int result : {0, -1, -5}) {
        fake_libnl::state().send_simple.always(result);
        EXPECT_EQ(thrown<netlink_err>([this] { make(); }), "nl_send_simple") << result;
        expect_logged_at(1, LOG_ERR,
                         std::string("Error: ") + GetParam().name +
                             ": nl_send(): " + std::to_string(result),
                         [this] { make(); });
    }
}

INSTANTIATE_TEST_SUITE_P(All, DumpRequest, ::testing::ValuesIn(dump_requests),
                         [](const auto &test) { return std::string(test.param.name); });

} // namespace
