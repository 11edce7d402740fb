// What the three decoders have in common: walking from message to message and from attribute to
// attribute without leaving the datagram.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>

#include <linux/rtnetlink.h>

#include "netlink/decoded_text.h"

namespace {

using fake_libnl::bytes_t;
using fake_libnl::datagram_t;

// A decoder's records, and the log lines of skipped ones, as one text for each message.
strings with_log(strings records) {
    for (const auto &line : captured::log_texts()) {
        records.push_back(line);
    }
    return records;
}

struct decoder_t {
    const char *name;
    strings (*decode)(const bytes_t &, bool odd);
    std::size_t headers; // bytes before the first attribute
    // Bytes of the last attribute of `append`, with its padding. Without it a message is skipped
    // with the line `skipped`.
    std::size_t last;
    const char *skipped;
    // A message with everything that the decoder reads.
    datagram_t &(*append)(datagram_t &, int ifindex);
};

void PrintTo(const decoder_t &param, std::ostream *out) {
    *out << param.name;
}

const decoder_t decoders[] = {
    {"Links", decoded_links, 32, 12, "Info: Skipping link msg with no addr/name",
     [](datagram_t &to, int ifindex) -> datagram_t & {
         return to.link(RTM_NEWLINK, ifindex, "eth0", {2, 3, 4, 5, 6, 7});
     }},
    {"Addrs", decoded_addrs, 24, 20, "Info: Skipping addr msg with no addr",
     [](datagram_t &to, int ifindex) -> datagram_t & {
         return to.address(RTM_NEWADDR, ifindex, "2001:db8::5:6", 64, 253);
     }},
    {"Routes", decoded_routes, 28, 8, "Info: Skipping route msg with no idx",
     [](datagram_t &to, int ifindex) -> datagram_t & {
         return to.route(RTM_NEWROUTE, ifindex, "fe80::1:2", 4, "2001:db8:1::", 48);
     }},
};

class Walk : public DaemonTest, public ::testing::WithParamInterface<decoder_t> {
protected:
    Walk() { verbosity = 2; }
    strings decode(const bytes_t &datagram, bool odd = false) {
        captured::clear();
        return with_log(GetParam().decode(datagram, odd));
    }
    datagram_t one(int ifindex = 2) {
        datagram_t datagram;
        GetParam().append(datagram, ifindex);
        return datagram;
    }
};

// The reference for a truncated datagram: the same bytes followed by zeros up to the end of the
// only message.
TEST_P(Walk, BytesAfterTheDatagramAreReadAsZero) {
    const bytes_t whole = one();
    for (std::size_t size = 1; size <= whole.size(); ++size) {
        bytes_t cut = whole;
        cut.resize(size);
        bytes_t padded = cut;
        padded.resize(whole.size(), 0);
        const auto wanted = decode(padded);
        EXPECT_EQ(decode(cut), wanted) << size;
        EXPECT_EQ(wanted.size(), 1U) << size;
    }
}

TEST_P(Walk, ADatagramMayBeAtAnOddAddress) {
    datagram_t datagram = one();
    GetParam().append(datagram, 3);
    const bytes_t whole = datagram;
    const auto wanted = decode(whole);
    ASSERT_EQ(wanted.size(), 2U);
    EXPECT_EQ(decode(whole, true), wanted);
    for (std::size_t size = 1; size < whole.size(); ++size) {
        bytes_t cut = whole;
        cut.resize(size);
        EXPECT_EQ(decode(cut, true), decode(cut)) << size;
    }
}

TEST_P(Walk, ALengthOfZeroOrLessEndsTheWalkAfterThatMessage) {
    // Aligned and taken as signed 32-bit numbers these are 0 or less.
    for (const std::uint32_t length :
         {0U, 0x80000000U, 0xfffffff0U, 0xfffffffdU, 0xffffffffU, 0x7fffffffU, 0x7ffffffdU}) {
        datagram_t datagram = one().set_message_length(length);
        GetParam().append(datagram, 3);
        EXPECT_EQ(decode(datagram).size(), 1U) << length;
        EXPECT_EQ(decode(datagram, true).size(), 1U) << length;
    }
}

TEST_P(Walk, NoLengthMakesTheWalkGoBackwards) {
    for (const std::uint32_t length : {0U, 0x80000000U, 0xfffffff0U, 0xffffffe0U, 0xffffffc0U}) {
        datagram_t datagram = one(7);
        GetParam().append(datagram, 8).set_message_length(length);
        GetParam().append(datagram, 9);
        const auto found = decode(datagram);
        ASSERT_EQ(found.size(), 2U) << length;
        const auto first = decode(one(7))[0];
        EXPECT_EQ(std::count(found.begin(), found.end(), first), 1) << length;
    }
}

TEST_P(Walk, ALengthBeyondTheEndMakesTheMessageTheLastOne) {
    datagram_t datagram = one();
    datagram.set_message_length(static_cast<std::uint32_t>(datagram.bytes().size() + 4));
    EXPECT_EQ(decode(datagram), decode(one()));
    datagram.set_message_length(0x7ffffff0U);
    EXPECT_EQ(decode(datagram).size(), 1U);
}

TEST_P(Walk, ShortLengthsStillLeadToTheEnd) {
    for (std::uint32_t length = 1; length < 32; ++length) {
        const bytes_t datagram = one().set_message_length(length);
        const auto found = decode(datagram);
        EXPECT_GE(found.size(), 1U) << length;
        EXPECT_LE(found.size(), datagram.size() / 4) << length;
        EXPECT_EQ(decode(datagram, true), found) << length;
    }
}

TEST_P(Walk, TheWalkStepsByTheAlignedLength) {
    datagram_t datagram = one();
    // One more attribute of 5 bytes: its padding belongs to the message but not to its length.
    datagram.attribute(77, "x", 1);
    datagram.set_message_length(static_cast<std::uint32_t>(datagram.bytes().size() - 3));
    GetParam().append(datagram, 3);
    const auto found = decode(datagram);
    ASSERT_EQ(found.size(), 2U);
    EXPECT_EQ(found[0], decode(one())[0]);
    EXPECT_EQ(found[1], decode(one(3))[0]);
}

TEST_P(Walk, AnAttributeLengthBelowFourOrBeyondTheMessageEndsItsAttributesOnly) {
    using number_t = std::uint16_t;
    for (const number_t length :
         {number_t{0}, number_t{1}, number_t{3}, number_t{12}, number_t{0xffff}}) {
        datagram_t datagram = one();
        datagram.attribute(77, 1).set_attribute_length(length);
        GetParam().append(datagram, 3);
        const auto found = decode(datagram);
        ASSERT_EQ(found.size(), 2U) << length;
        EXPECT_EQ(found[0], decode(one())[0]) << length; // decided by the attributes before it
        EXPECT_EQ(found[1], decode(one(3))[0]) << length;
    }
}

TEST_P(Walk, AttributesAfterAnInvalidOneAreNotRead) {
    using number_t = std::uint16_t;
    for (const number_t length : {number_t{0}, number_t{3}, number_t{0xffff}}) {
        // The invalid attribute comes first.
        const bytes_t good = one();
        bytes_t bad = good;
        const std::size_t first = GetParam().headers;
        std::memcpy(bad.data() + first, &length, sizeof length);
        bytes_t bare = good;
        bare.resize(first);
        const auto bare_length = static_cast<std::uint32_t>(first);
        std::memcpy(bare.data(), &bare_length, sizeof bare_length);
        EXPECT_EQ(decode(bad), decode(bare)) << length;
    }
}

TEST_P(Walk, AnAttributeThatIsOneByteTooLongForItsMessageIsNotSeen) {
    const std::size_t last = GetParam().last;
    const bytes_t bad = one().set_attribute_length(static_cast<std::uint16_t>(last + 1));
    bytes_t bare = bad;
    bare.resize(bad.size() - last);
    const auto bare_length = static_cast<std::uint32_t>(bare.size());
    std::memcpy(bare.data(), &bare_length, sizeof bare_length);
    EXPECT_EQ(decode(bad), decode(bare));
    EXPECT_NE(decode(bad), decode(one()));
}

TEST_P(Walk, AnAttributeMayFillItsMessageToTheLastByte) {
    datagram_t datagram = one();
    // Without the padding of the last attribute: rta_len equals the remaining length.
    datagram.attribute(77, "x", 1);
    datagram.set_message_length(static_cast<std::uint32_t>(datagram.bytes().size() - 3));
    EXPECT_EQ(decode(datagram), decode(one()));
}

// Its payload is then read from the bytes after it: here after the end of the datagram, so zeros.
TEST_P(Walk, AnAttributeWithOnlyAHeaderIsReadAtTheEnd) {
    const std::size_t payload = GetParam().last - sizeof(rtattr);
    bytes_t zeros = one();
    std::fill(zeros.end() - static_cast<std::ptrdiff_t>(payload), zeros.end(), 0);
    datagram_t empty = one();
    const std::size_t size = empty.bytes().size() - payload;
    empty.set_attribute_length(sizeof(rtattr)).cut(size);
    empty.set_message_length(static_cast<std::uint32_t>(size));
    EXPECT_EQ(decode(empty), decode(zeros));
    EXPECT_EQ(decode(empty, true), decode(zeros));
    EXPECT_NE(decode(empty), strings{GetParam().skipped});
}

TEST_P(Walk, AMessageShorterThanItsHeadersHasNoAttributes) {
    EXPECT_EQ(decode(one().set_message_length(0)), strings{GetParam().skipped});
    // The walk continues in the family header, reads zeros, and ends there.
    for (std::uint32_t length = NLMSG_HDRLEN + 1; length <= GetParam().headers - 4; ++length) {
        bytes_t datagram = one().set_message_length(length);
        const auto family_header = datagram.begin() + NLMSG_HDRLEN;
        const auto attributes = datagram.begin() + static_cast<std::ptrdiff_t>(GetParam().headers);
        std::fill(family_header + 4, attributes, 0);
        const auto found = decode(datagram);
        ASSERT_EQ(found.size(), 2U) << length;
        EXPECT_EQ(found[0], GetParam().skipped) << length; // records would come before it
    }
    // No attribute fits in here either.
    for (std::uint32_t more = 0; more < sizeof(rtattr); ++more) {
        bytes_t datagram =
            one().set_message_length(static_cast<std::uint32_t>(GetParam().headers) + more);
        datagram.resize(GetParam().headers + more);
        EXPECT_EQ(decode(datagram), strings{GetParam().skipped}) << more;
    }
}

// Unsigned for the attributes, although the walk ends at such a message.
TEST_P(Walk, AnEnormousLengthStillCoversTheMessagesAttributes) {
    for (const std::uint32_t length : {0x7ffffff0U, 0x7ffffffdU, 0x7fffffffU, 0x80000000U,
                                       0x80000001U, 0xfffffff0U, 0xfffffffdU, 0xffffffffU}) {
        EXPECT_EQ(decode(one().set_message_length(length)), decode(one())) << length;
        datagram_t followed = one().set_message_length(length);
        GetParam().append(followed, 3);
        const auto found = decode(followed);
        ASSERT_EQ(found.size(), 1U) << length;
        EXPECT_NE(found[0], GetParam().skipped) << length;
    }
}

TEST_P(Walk, AnAttributesTypeIncludesItsFlags) {
    for (const int flags :
         {NLA_F_NESTED, NLA_F_NET_BYTEORDER, int{NLA_F_NESTED} | int{NLA_F_NET_BYTEORDER}}) {
        bytes_t datagram = one();
        const std::size_t at = datagram.size() - GetParam().last + sizeof(std::uint16_t);
        std::uint16_t type = 0;
        std::memcpy(&type, datagram.data() + at, sizeof type);
        type = static_cast<std::uint16_t>(type | flags);
        std::memcpy(datagram.data() + at, &type, sizeof type);
        EXPECT_EQ(decode(datagram), strings{GetParam().skipped}) << flags;
    }
}

TEST_P(Walk, ANegativeLengthIsAnEmptyDatagram) {
    const bytes_t bytes = one();
    EXPECT_TRUE(decode_links(bytes.data(), -1).empty());
    EXPECT_TRUE(decode_addrs(bytes.data(), -1).empty());
    EXPECT_TRUE(decode_routes(bytes.data(), -1).empty());
    EXPECT_TRUE(captured::log().empty());
}

INSTANTIATE_TEST_SUITE_P(All, Walk, ::testing::ValuesIn(decoders),
                         [](const auto &test) { return std::string(test.param.name); });

} // namespace
