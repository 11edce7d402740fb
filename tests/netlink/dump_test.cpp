// The end of a dump after its last record, and dumps that may lack records.
#include "netlink/dump.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include "fakes/fake_libnl.h"
#include "fakes/log_capture.h"
#include "netlink/exact_buffer.h"

namespace {

using fake_libnl::bytes_t;
using fake_libnl::datagram_t;

bool ends(const bytes_t &datagram, bool odd = false) {
    const exact_buffer buffer(datagram, odd);
    return read_dump_marks({buffer.bytes(), buffer.length()}).ends_after_first;
}

bool incomplete(const bytes_t &datagram, bool odd = false) {
    const exact_buffer buffer(datagram, odd);
    return read_dump_marks({buffer.bytes(), buffer.length()}).incomplete;
}

datagram_t addresses(int count, int flags = NLM_F_MULTI) {
    datagram_t datagram;
    for (int i = 0; i < count; ++i) {
        datagram.address(RTM_NEWADDR, 2 + i, "2001:db8::1", 64, 0, flags);
    }
    return datagram;
}

bool multipart(const bytes_t &datagram) {
    const exact_buffer buffer(datagram);
    return read_dump_marks({buffer.bytes(), buffer.length()}).multipart;
}

class DumpEnd : public DaemonTest {};
class DumpCompleteness : public DaemonTest {};

TEST_F(DumpEnd, IsSeenAfterTheLastRecord) {
    EXPECT_TRUE(ends(addresses(1).done()));
    EXPECT_TRUE(ends(addresses(5).done()));
    EXPECT_TRUE(ends(datagram_t().link(RTM_NEWLINK, 2, "eth0").done()));
}

TEST_F(DumpEnd, InASeparateDatagramIsNotAfterARecord) {
    EXPECT_FALSE(ends(datagram_t().done()));
}

TEST_F(DumpEnd, IsNotInAnEarlierDatagramOfTheDumpNorInANotification) {
    EXPECT_FALSE(ends(addresses(5)));
    EXPECT_FALSE(ends(addresses(1, 0)));
    EXPECT_FALSE(ends({}));
}

TEST_F(DumpEnd, IsSeenWithAnyResult) {
    EXPECT_TRUE(ends(addresses(1).done(-4)));
}

TEST_F(DumpEnd, IsFoundBetweenOtherMessages) {
    EXPECT_TRUE(ends(addresses(1).done().address(RTM_NEWADDR, 2, "2001:db8::1", 64)));
    EXPECT_TRUE(ends(datagram_t().done().done()));
}

TEST_F(DumpEnd, IsNotReachedAfterALengthThatEndsTheWalk) {
    for (const std::uint32_t length : {0U, 0x80000000U, 0xfffffffdU, 0x7fffffffU}) {
        datagram_t datagram = addresses(1);
        datagram.set_message_length(length).done();
        EXPECT_FALSE(ends(datagram)) << length;
    }
}

TEST_F(DumpEnd, ReadsStayInsideTheDatagramAtAnyAddress) {
    const bytes_t whole = addresses(2).done();
    for (std::size_t size = 0; size <= whole.size(); ++size) {
        bytes_t cut = whole;
        cut.resize(size);
        // The end's type is 4 bytes after its start, 20 bytes before the datagram's end.
        const std::size_t type_at = whole.size() - 20 + 4;
        const bool wanted = size > type_at + (whole[type_at] != 0 ? 0 : 1);
        EXPECT_EQ(ends(cut), wanted) << size;
        EXPECT_EQ(ends(cut, true), wanted) << size;
    }
}

TEST_F(DumpEnd, AnswersToARequestHaveAMarkThatNotificationsLack) {
    EXPECT_TRUE(multipart(addresses(1)));
    EXPECT_TRUE(multipart(datagram_t().done(0, NLM_F_MULTI)));
    EXPECT_FALSE(multipart(addresses(2, 0)));
    EXPECT_FALSE(multipart(datagram_t().error(-16, {RTM_GETADDR, 257, {}})));
    EXPECT_FALSE(multipart({}));
}

TEST_F(DumpCompleteness, AnUndisturbedDumpIsComplete) {
    EXPECT_FALSE(incomplete(addresses(3)));
    EXPECT_FALSE(incomplete(addresses(3).done()));
    EXPECT_FALSE(incomplete(datagram_t().done()));
    EXPECT_FALSE(incomplete({}));
}

TEST_F(DumpCompleteness, AnyInterruptedMessageMakesItIncomplete) {
    const int interrupted = NLM_F_MULTI | NLM_F_DUMP_INTR;
    EXPECT_TRUE(incomplete(addresses(1, interrupted)));
    EXPECT_TRUE(
        incomplete(addresses(2).address(RTM_NEWADDR, 2, "2001:db8::1", 64, 0, interrupted).done()));
    EXPECT_TRUE(incomplete(datagram_t().done(0, interrupted)));
    EXPECT_TRUE(incomplete(addresses(2).done(0, interrupted)));
}

TEST_F(DumpCompleteness, ANegativeResultAtItsEndMakesItIncomplete) {
    EXPECT_TRUE(incomplete(datagram_t().done(-4)));
    EXPECT_TRUE(incomplete(addresses(2).done(-105)));
    EXPECT_FALSE(incomplete(datagram_t().done(1)));
}

TEST_F(DumpCompleteness, OnlyTheResultOfTheEndMatters) {
    // A record whose first four bytes would be a negative number.
    const std::int32_t negative = -1;
    EXPECT_FALSE(
        incomplete(datagram_t().message(RTM_NEWADDR, &negative, sizeof negative, NLM_F_MULTI)));
}

TEST_F(DumpCompleteness, ReadsStayInsideTheDatagramAtAnyAddress) {
    const bytes_t whole = addresses(1).done(-1);
    for (std::size_t size = 0; size <= whole.size(); ++size) {
        bytes_t cut = whole;
        cut.resize(size);
        EXPECT_EQ(incomplete(cut, true), incomplete(cut)) << size;
        // Without the result's bytes, zeros are read.
        if (size <= whole.size() - 4) {
            EXPECT_FALSE(incomplete(cut)) << size;
        }
    }
    EXPECT_TRUE(incomplete(whole));
}

} // namespace
