#include "protocol/codec.h"

#include <utility>

#include "protocol/limits.h"
#include "protocol/protocol.h"

namespace tav {

namespace {

void put_number(char *to, std::uint64_t value, std::size_t bytes) {
    for (std::size_t i = bytes; i > 0; --i) {
        to[i - 1] = static_cast<char>(static_cast<unsigned char>(value));
        value >>= 8;
    }
}

void append_number(std::string &buffer, std::uint64_t value, std::size_t bytes) {
    char digits[sizeof value];
    put_number(static_cast<char *>(digits), value, bytes);
    buffer.append(static_cast<const char *>(digits), bytes);
}

std::uint64_t number_at(std::string_view text, std::size_t bytes) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < bytes; ++i) {
        value = (value << 8) | static_cast<unsigned char>(text[i]);
    }
    return value;
}

} // namespace

Writer::Writer(std::string recycled) : buffer(std::move(recycled)) {
    buffer.assign(length_bytes, '\0');
}

void Writer::u8(std::uint8_t value) {
    append_number(buffer, value, 1);
}
void Writer::u32(std::uint32_t value) {
    append_number(buffer, value, 4);
}
void Writer::u64(std::uint64_t value) {
    append_number(buffer, value, 8);
}
void Writer::i64(std::int64_t value) {
    append_number(buffer, static_cast<std::uint64_t>(value), 8);
}

void Writer::text(std::string_view value) {
    u32(static_cast<std::uint32_t>(value.size()));
    buffer.append(value);
}

void Writer::bytes(std::string_view encoded) {
    buffer.append(encoded);
}

std::size_t Writer::size() const {
    return buffer.size() - length_bytes;
}

bool Writer::too_large() const {
    return size() > limits::frame_bytes;
}

std::string Writer::finish() {
    put_number(buffer.data(), size(), length_bytes);
    std::string frame = std::move(buffer);
    buffer.assign(length_bytes, '\0');
    return frame;
}

void recycle(std::string &buffer) {
    constexpr std::size_t keep_capacity = std::size_t{256} << 10;
    buffer.clear();
    if (buffer.capacity() > keep_capacity) {
        buffer.shrink_to_fit();
    }
}

void Reader::fail() {
    failed = true;
    rest = {};
}

std::uint64_t Reader::number(std::size_t bytes) {
    if (rest.size() < bytes) {
        fail();
        return 0;
    }
    const std::uint64_t value = number_at(rest, bytes);
    rest.remove_prefix(bytes);
    return value;
}

std::uint8_t Reader::u8() {
    return static_cast<std::uint8_t>(number(1));
}
std::uint32_t Reader::u32() {
    return static_cast<std::uint32_t>(number(4));
}
std::uint64_t Reader::u64() {
    return number(8);
}
std::int64_t Reader::i64() {
    return static_cast<std::int64_t>(number(8));
}

std::string_view Reader::text() {
    const std::size_t length = u32();
    if (rest.size() < length) {
        fail();
        return {};
    }
    const std::string_view value = rest.substr(0, length);
    rest.remove_prefix(length);
    return value;
}

std::uint32_t Reader::count(std::size_t least) {
    const std::uint32_t items = u32();
    if (items > rest.size() / least) {
        fail();
        return 0;
    }
    return items;
}

FrameState next_frame(std::string_view stream, std::string_view &body) {
    if (stream.size() < length_bytes) {
        return FrameState::incomplete;
    }
    const std::uint64_t length = number_at(stream, length_bytes);
    if (length > limits::frame_bytes) {
        return FrameState::too_large;
    }
    if (stream.size() - length_bytes < length) {
        return FrameState::incomplete;
    }
    body = stream.substr(length_bytes, static_cast<std::size_t>(length));
    return FrameState::complete;
}

} // namespace tav
