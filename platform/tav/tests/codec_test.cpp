// Writing and reading of frames and messages. tests/fuzz/store_messages.cpp has each message.
#include <gtest/gtest.h>

#include "protocol/limits.h"
#include "protocol/messages.h"

using namespace tav;

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

TEST(Messages, AnUnknownStepOfATransactionIsMalformed) {
    for (const char kind : {'\0', '\x0a', '\xff'}) {
        const std::string body = std::string(1, kind) + std::string("\0\0\0\0", 4);
        Reader reader(body);
        Item item;
        get(reader, item);
        EXPECT_FALSE(reader.ok());
    }
}
