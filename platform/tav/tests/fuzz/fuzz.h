// What the fuzz targets share. A target is one file with an LLVMFuzzerTestOneInput that takes any
// bytes, passes them to the code under test and compares the result with a second, plain version of
// it. Linked with libFuzzer it searches for inputs (-DTAV_FUZZ=ON); linked with replay.cpp it runs
// the seeds as an ordinary test.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

namespace fuzz {

// Reports an error and ends the process, unless `fine`.
void require(bool fine, const char *what);
// The same for two texts that must be equal; both are printed.
void require_same(const std::string &got, const std::string &expected, const char *what);

// Splits an input. After its end everything reads as zero and empty.
class input_t {
public:
    input_t(const std::uint8_t *data, std::size_t size) : at(data), end(data + size) {}

    bool empty() const { return at == end; }
    std::uint8_t byte();
    // Two bytes, the less significant one first.
    std::uint16_t number();
    // This many bytes, or fewer at the end.
    std::string bytes(std::size_t wanted);
    // A text that follows its length in one byte.
    std::string text() { return bytes(byte()); }
    std::string rest() { return bytes(static_cast<std::size_t>(end - at)); }

private:
    const std::uint8_t *at;
    const std::uint8_t *end;
};

// The parts between the separators: always one more than there are separators.
std::vector<std::string> split(const std::string &text, char separator);

// Four bytes as a number, the most significant one first, and the reverse.
std::uint32_t number_at(const std::string &bytes, std::size_t at);
std::string big_endian(std::size_t number);
// A frame of the store's protocol with this body.
inline std::string framed(const std::string &body) {
    return big_endian(body.size()) + body;
}

// The result of strtol in base 10, implemented plainly: leading white space, a sign, digits.
struct decimal_t {
    std::size_t consumed = 0; // characters, 0 when there is no digit
    std::int64_t value = 0;   // at the end of its range if the digits exceed it
};
decimal_t decimal(const std::string &text);

// The text as snprintf writes it, cut at `size` - 1 characters; texts end at their first NUL.
std::string format(std::size_t size, const char *pattern, ...)
    __attribute__((format(printf, 2, 3)));

} // namespace fuzz
