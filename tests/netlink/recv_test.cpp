// Reading one datagram and classifying it by its first message.
#include "netlink/channel.h"
#include "netlink/wire.h"

#include <cstdlib>
#include <cstring>
#include <string>

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <syslog.h>

#include "fakes/engine_fixture.h"
#include "fakes/fake_os.h"
#include "fakes/log_capture.h"

namespace {

using fake_libnl::bytes_t;
using fake_libnl::datagram_t;

class Recv : public DaemonTest {
protected:
    ~Recv() override { std::free(buffer); }

    // Prepares a datagram and reads it.
    int recv_of(const bytes_t &datagram) {
        fake_libnl::queue_datagram(datagram);
        return channel.recv(buffer, length);
    }
    // A buffer of an earlier datagram in the caller's hands, watched for its release.
    unsigned char *hold_earlier_buffer() {
        recv_of(datagram_t().address(RTM_NEWADDR, 2, "fe80::1", 64));
        fake_os::watch_free(buffer);
        journal::clear();
        return buffer;
    }

    CNetlink channel;
    unsigned char *buffer = nullptr;
    int length = -1;
};

datagram_t message_of_type(int type) {
    const int nothing = 0;
    return datagram_t().message(type, &nothing, sizeof nothing);
}

TEST_F(Recv, HandsOutTheDatagramAndItsLength) {
    const bytes_t sent = datagram_t().address(RTM_NEWADDR, 2, "2001:db8::5", 64);
    EXPECT_EQ(recv_of(sent), RTM_NEWADDR);
    ASSERT_EQ(static_cast<std::size_t>(length), sent.size());
    EXPECT_EQ(bytes_t(buffer, buffer + length), sent);
}

TEST_F(Recv, RoutingMessagesYieldTheirOwnType) {
    for (const int type : {16, 17, 18, 19, 20, 21, 22, 24, 25, 26, 52, 1000, 65535}) {
        EXPECT_EQ(recv_of(message_of_type(type)), type);
    }
}

TEST_F(Recv, NoopYieldsNothingLikeAnEmptyRead) {
    EXPECT_EQ(recv_of(message_of_type(NLMSG_NOOP)), 0);
    fake_libnl::queue_recv_result(0);
    EXPECT_EQ(channel.recv(buffer, length), 0);
}

TEST_F(Recv, TypeZeroYieldsItselfAndSoNothing) {
    EXPECT_EQ(recv_of(message_of_type(0)), 0);
    EXPECT_TRUE(captured::log().empty());
}

TEST_F(Recv, DoneYieldsOne) {
    EXPECT_EQ(recv_of(datagram_t().done()), 1);
}

TEST_F(Recv, DoneAsFirstMessageYieldsOne) {
    EXPECT_EQ(recv_of(datagram_t().done().address(RTM_NEWADDR, 2, "fe80::1", 64)), 1);
}

TEST_F(Recv, OnlyTheFirstMessageIsExamined) {
    EXPECT_EQ(recv_of(datagram_t().address(RTM_NEWADDR, 2, "fe80::1", 64).done()), RTM_NEWADDR);
    EXPECT_EQ(recv_of(message_of_type(NLMSG_NOOP).address(RTM_NEWADDR, 2, "fe80::1", 64)), 0);
}

TEST_F(Recv, FailureIsLoggedAndThrown) {
    fake_libnl::queue_recv_result(-5);
    EXPECT_EQ(thrown<netlink_err>([this] { channel.recv(buffer, length); }), "nl_recv");
    expect_logged_at(1, LOG_ERR, "Error: recv: nl_recv(): -5", [this] {
        fake_libnl::queue_recv_result(-5);
        channel.recv(buffer, length);
    });
}

TEST_F(Recv, FailureDoesNotChangeTheCallersBuffer) {
    unsigned char *const earlier = hold_earlier_buffer();
    const int earlier_length = length;
    fake_libnl::queue_recv_result(-4);
    EXPECT_THROW(channel.recv(buffer, length), netlink_err);
    EXPECT_EQ(buffer, earlier);
    EXPECT_EQ(length, earlier_length);
    EXPECT_EQ(journal::count("free(watched)"), 0U);
}

TEST_F(Recv, EmptyReadDoesNotChangeTheCallersBufferAndLogsNothing) {
    verbosity = 9;
    unsigned char *const earlier = hold_earlier_buffer();
    const int earlier_length = length;
    fake_libnl::queue_recv_result(0);
    EXPECT_EQ(channel.recv(buffer, length), 0);
    EXPECT_EQ(buffer, earlier);
    EXPECT_EQ(length, earlier_length);
    EXPECT_EQ(journal::count("free(watched)"), 0U);
    EXPECT_TRUE(captured::log().empty());
}

TEST_F(Recv, EarlierBufferIsFreedOnceAndOnlyAfterANewDatagramWasRead) {
    hold_earlier_buffer();
    recv_of(datagram_t().done());
    EXPECT_EQ(journal::entries(), (std::vector<std::string>{"nl_recv()", "free(watched)"}));
    EXPECT_EQ(length, 20);
}

TEST_F(Recv, AnOwnedDatagramIsFreedWithItsOwner) {
    fake_libnl::queue_datagram(datagram_t().done());
    {
        wire::owned_datagram_t owner;
        EXPECT_EQ(channel.recv(owner.bytes, owner.length), 1);
        fake_os::watch_free(owner.bytes);
    }
    EXPECT_EQ(journal::count("free(watched)"), 1U);
}

TEST_F(Recv, BufferIsReplacedAlsoByAnErrorMessage) {
    hold_earlier_buffer();
    const bytes_t sent = datagram_t().error(-17, {RTM_NEWADDR, 0, {}});
    EXPECT_EQ(recv_of(sent), 0);
    EXPECT_EQ(journal::count("free(watched)"), 1U);
    EXPECT_EQ(bytes_t(buffer, buffer + length), sent);
}

TEST_F(Recv, ErrorsAndOverrunsAreLoggedAsBadTypes) {
    EXPECT_EQ(recv_of(datagram_t().error(-17, {RTM_NEWADDR, 0, {}})), 0);
    EXPECT_EQ(recv_of(message_of_type(NLMSG_OVERRUN)), 0);
    expect_logged_at(1, LOG_ERR, "Error: recv: bad msg type: 2", [this] {
        recv_of(datagram_t().error(-17, {RTM_NEWADDR, 0, {}}));
    });
    expect_logged_at(1, LOG_ERR, "Error: recv: bad msg type: 4",
                     [this] { recv_of(message_of_type(NLMSG_OVERRUN)); });
}

TEST_F(Recv, AcknowledgementsAreLoggedAndNeverThrow) {
    verbosity = 1;
    const bytes_t acknowledgement = datagram_t().error(0, {RTM_NEWADDR, 0xc00, {}});
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(recv_of(acknowledgement), 0);
    }
    EXPECT_EQ(captured::log_count("Error: recv: bad msg type: 2"), 1000U);
    EXPECT_EQ(captured::log().size(), 1000U);
}

TEST_F(Recv, LongRunsOfBadTypesBetweenGoodOnesNeverThrow) {
    for (int run = 1; run < 30; ++run) {
        for (int i = 0; i < run; ++i) {
            ASSERT_EQ(recv_of(message_of_type(i % 2 == 0 ? NLMSG_ERROR : NLMSG_OVERRUN)), 0);
        }
        ASSERT_EQ(recv_of(message_of_type(RTM_NEWROUTE)), RTM_NEWROUTE);
    }
}

// The address sanitizer reports each byte that is read after a buffer of exactly this size.
TEST_F(Recv, DatagramsShorterThanAHeaderAreReadAsIfZerosFollowed) {
    for (std::size_t size = 1; size < 6; ++size) {
        bytes_t sent(size, 0);
        std::uint16_t type = 0;
        if (size > 4) {
            sent[4] = 20;
            std::memcpy(&type, sent.data() + 4, 1);
        }
        EXPECT_EQ(recv_of(sent), type) << size;
        EXPECT_EQ(length, static_cast<int>(size));
    }
}

} // namespace
