// Writing and reading the body of a frame. Numbers go most significant byte first; texts carry
// their length in front. Neither side ever leaves its buffer.
#ifndef TAV_PROTOCOL_CODEC_H
#define TAV_PROTOCOL_CODEC_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace tav {

// Builds one frame. The space for the length is kept free from the start, so that the finished
// frame needs no second copy.
class Writer {
public:
    // `recycled` is a frame that is no longer needed: its memory, not its content, is used again.
    explicit Writer(std::string recycled = {});

    void u8(std::uint8_t value);
    void u32(std::uint32_t value);
    void u64(std::uint64_t value);
    void i64(std::int64_t value);
    void text(std::string_view value);

    // Bytes of the body so far.
    std::size_t size() const;
    // Body beyond limits::frame_bytes; such a frame must not be sent.
    bool too_large() const;
    // The complete frame, length included. The writer is empty afterwards.
    std::string finish();

private:
    std::string buffer;
};

// Empties a buffer that is to be used again. It keeps its memory, but for that of the rare frame
// that is large.
void recycle(std::string &buffer);

// Reads one body. The text that it was built over must outlive it. Reading past the end gives zeros
// and empty texts and makes the reader fail for good, so that a decoder may check once at its end.
class Reader {
public:
    explicit Reader(std::string_view body) : rest(body) {}

    std::uint8_t u8();
    std::uint32_t u32();
    std::uint64_t u64();
    std::int64_t i64();
    std::string_view text();
    // The number of items that follow, each of which takes at least `least` bytes: a number that
    // the rest of the body cannot hold fails here, before anybody reserves memory for it.
    std::uint32_t count(std::size_t least);

    bool ok() const { return !failed; }
    // Everything was read and nothing was missing.
    bool finished() const { return !failed && rest.empty(); }
    void fail();

private:
    std::uint64_t number(std::size_t bytes);

    std::string_view rest;
    bool failed = false;
};

// What the first bytes of a stream hold.
enum class FrameState { incomplete, complete, too_large };

// Looks for a frame at the start of `stream`; when complete, `body` is its content, a part of
// `stream`, and the frame takes length_bytes + body.size() bytes of it.
FrameState next_frame(std::string_view stream, std::string_view &body);

} // namespace tav

#endif
