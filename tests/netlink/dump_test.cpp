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

constexpr int interrupted = NLM_F_MULTI | NLM_F_DUMP_INTR;

dump_marks_t marks(const bytes_t &datagram, bool odd = false) {
    const exact_buffer buffer(datagram, odd);
    return read_dump_marks({buffer.bytes(), buffer.length()});
}

datagram_t addresses(int count, int flags = NLM_F_MULTI) {
    datagram_t datagram;
    for (int i = 0; i < count; ++i) {
        datagram.address(RTM_NEWADDR, 2 + i, "2001:db8::1", 64, 0, flags);
    }
    return datagram;
}

class Dump : public DaemonTest {};

TEST_F(Dump, IsMarkedByEachOfItsMessages) {
    const std::int32_t negative = -1;
    const struct {
        const char *what;
        bytes_t datagram;
        bool ends, incomplete, multipart;
    } rows[] = {
        {"no message", {}, false, false, false},
        {"records", addresses(5), false, false, true},
        {"a notification", addresses(1, 0), false, false, false},
        {"several notifications", addresses(2, 0), false, false, false},
        {"an end after one record", addresses(1).done(), true, false, true},
        {"an end after several records", addresses(5).done(), true, false, true},
        {"an end after a link", datagram_t().link(RTM_NEWLINK, 2, "eth0").done(), true, false,
         true},
        {"an end alone is not after a record", datagram_t().done(), false, false, true},
        {"an end before another record", addresses(1).done().address(RTM_NEWADDR, 2, "::1", 64),
         true, false, true},
        {"two ends", datagram_t().done().done(), true, false, true},
        {"an end with a negative result", addresses(1).done(-4), true, true, true},
        {"... and another one", addresses(2).done(-105), true, true, true},
        {"... and alone", datagram_t().done(-4), false, true, true},
        {"an end with a positive result", datagram_t().done(1), false, false, true},
        {"an interrupted record", addresses(1, interrupted), false, true, true},
        {"an interrupted record among others",
         addresses(2).address(RTM_NEWADDR, 2, "::1", 64, 0, interrupted).done(), true, true, true},
        {"an interrupted end", datagram_t().done(0, interrupted), false, true, true},
        {"an interrupted end after records", addresses(2).done(0, interrupted), true, true, true},
        {"a record that begins with a negative number",
         datagram_t().message(RTM_NEWADDR, &negative, sizeof negative, NLM_F_MULTI), false, false,
         true},
        {"an error", datagram_t().error(-16, {RTM_GETADDR, 257, {}}), false, false, false},
    };
    for (const auto &one : rows) {
        SCOPED_TRACE(one.what);
        EXPECT_EQ(marks(one.datagram).ends_after_first, one.ends);
        EXPECT_EQ(marks(one.datagram).incomplete, one.incomplete);
        EXPECT_EQ(marks(one.datagram).multipart, one.multipart);
    }
}

TEST_F(Dump, ItsEndIsNotReachedAfterALengthThatEndsTheWalk) {
    for (const std::uint32_t length : {0U, 0x80000000U, 0xfffffffdU, 0x7fffffffU}) {
        datagram_t datagram = addresses(1);
        datagram.set_message_length(length).done();
        EXPECT_FALSE(marks(datagram).ends_after_first) << length;
    }
}

TEST_F(Dump, ReadsStayInsideTheDatagramAtAnyAddress) {
    const bytes_t whole = addresses(2).done(-1);
    for (std::size_t size = 0; size <= whole.size(); ++size) {
        bytes_t cut = whole;
        cut.resize(size);
        // The end's type is 4 bytes after its start, 20 bytes before the datagram's end.
        const std::size_t type_at = whole.size() - 20 + 4;
        const bool ends = size > type_at + (whole[type_at] != 0 ? 0 : 1);
        EXPECT_EQ(marks(cut).ends_after_first, ends) << size;
        EXPECT_EQ(marks(cut, true).ends_after_first, ends) << size;
        EXPECT_EQ(marks(cut, true).incomplete, marks(cut).incomplete) << size;
        // Without the result's bytes, zeros are read.
        if (size <= whole.size() - 4) {
            EXPECT_FALSE(marks(cut).incomplete) << size;
        }
    }
    EXPECT_TRUE(marks(whole).incomplete);
}

} // namespace
