// Writing and reading of frames and messages.
#include <gtest/gtest.h>

#include <sstream>

#include "protocol/codec.h"
#include "protocol/history.h"
#include "protocol/limits.h"
#include "protocol/messages.h"

using namespace tav;

namespace {

std::string body_of(Writer &writer) {
    return writer.finish().substr(length_bytes);
}

// Writes the value, reads it back and writes it again: the bytes must be the same. Then reads every
// shorter part, which must fail, and one byte more, which must not be consumed.
template <typename T>
void expect_round_trip(const T &value) {
    Writer first;
    put(first, value);
    const std::string bytes = body_of(first);

    Reader reader(bytes);
    T read{};
    get(reader, read);
    ASSERT_TRUE(reader.finished());
    Writer second;
    put(second, read);
    EXPECT_EQ(body_of(second), bytes);

    for (std::size_t length = 0; length < bytes.size(); ++length) {
        // A copy of exactly this size, so that the address sanitizer reports a read beyond it.
        const std::string part = bytes.substr(0, length);
        Reader cut(part);
        T ignored{};
        get(cut, ignored);
        EXPECT_FALSE(cut.finished()) << "cut to " << length << " of " << bytes.size();
    }

    const std::string longer = bytes + '\0';
    Reader more(longer);
    T ignored{};
    get(more, ignored);
    EXPECT_TRUE(more.ok());
    EXPECT_FALSE(more.finished());
}

} // namespace

TEST(Codec, NumbersGoMostSignificantByteFirst) {
    Writer writer;
    writer.u8(1);
    writer.u32(0x02030405);
    writer.u64(0x060708090a0b0c0dU);
    writer.text("xy");
    EXPECT_EQ(writer.finish(), std::string("\0\0\0\x13"
                                           "\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c\x0d"
                                           "\0\0\0\x02xy",
                                           23));
}

TEST(Codec, NegativeNumbersComeBack) {
    Writer writer;
    writer.i64(-1);
    writer.i64(INT64_MIN);
    const std::string body = body_of(writer);
    Reader reader(body);
    EXPECT_EQ(reader.i64(), -1);
    EXPECT_EQ(reader.i64(), INT64_MIN);
    EXPECT_TRUE(reader.finished());
}

TEST(Codec, ATextLongerThanTheBodyIsRefused) {
    const std::string body("\0\0\0\x05"
                           "four",
                           8);
    Reader reader(body);
    EXPECT_EQ(reader.text(), "");
    EXPECT_FALSE(reader.ok());
}

TEST(Codec, AFailedReaderReturnsNothingMore) {
    Writer writer;
    writer.u8(7);
    const std::string body = body_of(writer);
    Reader reader(body);
    EXPECT_EQ(reader.u32(), 0U);
    EXPECT_EQ(reader.u8(), 0U);
    EXPECT_FALSE(reader.ok());
}

TEST(Codec, ACountThatTheBodyCannotHoldIsRefusedBeforeMemoryIsReserved) {
    const std::string body("\xff\xff\xff\xff"
                           "abc",
                           7);
    Reader reader(body);
    std::vector<std::string> values;
    get_all(reader, values);
    EXPECT_FALSE(reader.ok());
    EXPECT_EQ(values.size(), 0U);
}

TEST(Codec, AFrameIsFoundOnlyWhenItIsComplete) {
    Writer writer;
    writer.text("hello");
    const std::string frame = writer.finish();
    std::string_view body;
    for (std::size_t length = 0; length < frame.size(); ++length) {
        EXPECT_EQ(next_frame(std::string_view(frame).substr(0, length), body),
                  FrameState::incomplete);
    }
    ASSERT_EQ(next_frame(frame + "rest", body), FrameState::complete);
    EXPECT_EQ(body.size(), 9U);
}

TEST(Codec, AFrameBeyondTheLimitIsRefusedByItsLengthAlone) {
    const auto announce = [](std::size_t length) {
        Writer writer;
        writer.u32(static_cast<std::uint32_t>(length));
        return writer.finish().substr(length_bytes);
    };
    std::string_view body;
    EXPECT_EQ(next_frame(announce(limits::frame_bytes), body), FrameState::incomplete);
    EXPECT_EQ(next_frame(announce(limits::frame_bytes + 1), body), FrameState::too_large);
    EXPECT_EQ(next_frame("\xff\xff\xff\xff", body), FrameState::too_large);
}

TEST(Messages, EachKindSurvivesTheRoundTripAndNoCutOfIt) {
    const std::string odd("any\xff bytes\n", 11);
    const Value value{element_type_string, odd, 1234567890123};
    expect_round_trip(RequestHeader{Op::transact, 0x01020304});
    expect_round_trip(ReplyHeader{0xfffffffe, true});
    expect_round_trip(Hello{magic, protocol_version});
    expect_round_trip(Ticket{1, 0xffffffffffffffffU});
    expect_round_trip(value);
    expect_round_trip(Event{mlr_event_removed, odd});
    expect_round_trip(Item{ItemKind::set, "/a/b", value});
    expect_round_trip(Item{ItemKind::remove, "/a/b", {}});
    expect_round_trip(Item{ItemKind::clear, "/a/b", {}});
    expect_round_trip(Item{ItemKind::require, "/a/b", value});
    expect_round_trip(Item{ItemKind::require_absent, "/a/b", {}});
    expect_round_trip(LeafAnswer{api_status_ok, value});
    expect_round_trip(LeafAnswer{api_status_absent, {}});
    expect_round_trip(Child{odd, element_type_node});
    expect_round_trip(Registration{"/a", 1, true});
    expect_round_trip(WatchdogRequest{"dog", -5, true});
    expect_round_trip(DumpElement{"/a", value});
    expect_round_trip(HistoryRequest{odd, 5});
    expect_round_trip(ChangedElement{odd, true, value, false, {}});
    expect_round_trip(ChangedElement{odd, false, {}, true, value});
    expect_round_trip(HistoryEntry{
        1, 2, 3, 4, odd, true, 5, {ChangedElement{odd, true, value, true, value}, {}}});
    expect_round_trip(PendingChange{HistoryEntry{1, 2, 3, 4, odd, true, 5, {}}, 6, 7});
    expect_round_trip(ClientStatus{1, 2, 3, true, 4, 5, true, 6});
    expect_round_trip(Farewell{api_status_denied, odd});
    expect_round_trip(LimitStatus{"bytes", 1, 2, 3});
    expect_round_trip(WatchdogStatus{"dog", 2, 60, 1000, WatchdogState::gone});
    ServiceStatus status;
    status.database = odd;
    status.durability = "full";
    status.limits.resize(3);
    status.clients.resize(2);
    status.watchdogs.resize(1);
    expect_round_trip(status);
}

TEST(Messages, AReplyHasNoUnknownFlags) {
    for (char flags = 0; flags < 16; ++flags) {
        const std::string body = std::string("\0\0\0\x01", 4) + flags;
        Reader reader(body);
        ReplyHeader header;
        get(reader, header);
        EXPECT_EQ(reader.ok(), flags < 8);
        EXPECT_EQ(header.drain, flags % 2 == 1);
        EXPECT_EQ(header.more, flags / 2 % 2 == 1);
        EXPECT_EQ(header.notice, flags / 4 % 2 == 1);
    }
}

TEST(Messages, ABooleanIsZeroOrOne) {
    Writer writer;
    put(writer, Registration{"/a", 1, true});
    std::string body = body_of(writer);
    body.back() = '\x02';
    Reader reader(body);
    Registration registration;
    get(reader, registration);
    EXPECT_FALSE(reader.ok());
}

TEST(Messages, AnUnknownStepOfATransactionIsMalformed) {
    for (const char kind : {'\0', '\x0a', '\xff'}) {
        const std::string body = std::string(1, kind) + std::string("\0\0\0\0", 4);
        Reader reader(body);
        Item item;
        get(reader, item);
        EXPECT_FALSE(reader.ok());
    }
}
