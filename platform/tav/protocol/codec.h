// Writing and reading the body of a frame. Numbers are written most significant byte first; a text
// follows its length. Neither side ever leaves its buffer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace tav {

// Builds one frame. The space for the length is reserved at the start, so that the finished frame
// need not be copied.
class Writer {
public:
    // `recycled` is a frame that is no longer needed; only its memory is reused.
    explicit Writer(std::string recycled = {});

    void u8(std::uint8_t value);
    void u32(std::uint32_t value);
    void u64(std::uint64_t value);
    void i64(std::int64_t value);
    void text(std::string_view value);
    // What was encoded earlier.
    void bytes(std::string_view encoded);

    // Bytes of the body so far.
    std::size_t size() const;
    // The body is larger than limits::frame_bytes; such a frame must not be sent.
    bool too_large() const;
    // The complete frame, length included. The writer is empty afterwards.
    std::string finish();

private:
    std::string buffer;
};

// Empties a buffer for reuse. It keeps its memory, except after a rare large frame.
void recycle(std::string &buffer);

// Reads one body. The text must outlive the reader. Reading past the end returns zeros and empty
// texts, and the reader has failed from then on, so that a decoder needs only one check at its end.
class Reader {
public:
    explicit Reader(std::string_view body) : rest(body) {}

    std::uint8_t u8();
    std::uint32_t u32();
    std::uint64_t u64();
    std::int64_t i64();
    std::string_view text();
    // The number of items that follow, each of which takes at least `least` bytes. Fails if the
    // rest of the body is too short for that number, before memory is reserved for it.
    std::uint32_t count(std::size_t least);

    // What was not read yet.
    std::string_view remaining() const { return rest; }
    bool ok() const { return !failed; }
    // Everything was read, and nothing was missing.
    bool finished() const { return !failed && rest.empty(); }
    void fail();

private:
    std::uint64_t number(std::size_t bytes);

    std::string_view rest;
    bool failed = false;
};

// The content of the first bytes of a stream.
enum class FrameState { incomplete, complete, too_large };

// Looks for a frame at the start of `stream`; when complete, `body` is its content, a part of
// `stream`, and the frame takes length_bytes + body.size() bytes of it.
FrameState next_frame(std::string_view stream, std::string_view &body);

} // namespace tav
