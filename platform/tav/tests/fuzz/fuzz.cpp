#include "fuzz/fuzz.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <limits>

namespace fuzz {

void require(bool fine, const char *what) {
    if (!fine) {
        std::fprintf(stderr, "FINDING: %s\n", what);
        std::abort();
    }
}

void require_same(const std::string &got, const std::string &expected, const char *what) {
    if (got != expected) {
        std::fprintf(stderr, "got:\n%s\nexpected:\n%s\n", got.c_str(), expected.c_str());
        require(false, what);
    }
}

std::uint8_t input_t::byte() {
    return empty() ? std::uint8_t{0} : *at++;
}

std::uint16_t input_t::number() {
    const unsigned low = byte();
    const unsigned high = byte();
    return static_cast<std::uint16_t>(low | (high << 8));
}

std::string input_t::bytes(std::size_t wanted) {
    const std::size_t length = std::min(wanted, static_cast<std::size_t>(end - at));
    std::string taken(at, at + length);
    at += length;
    return taken;
}

std::vector<std::string> split(const std::string &text, char separator) {
    std::vector<std::string> parts(1);
    for (const char one : text) {
        if (one == separator) {
            parts.emplace_back();
        } else {
            parts.back().push_back(one);
        }
    }
    return parts;
}

std::uint32_t number_at(const std::string &bytes, std::size_t at) {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < 4; ++i) {
        value = value * 256 + static_cast<unsigned char>(bytes[at + i]);
    }
    return value;
}

std::string big_endian(std::size_t number) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8) {
        bytes.push_back(static_cast<char>((number >> shift) & 0xffU));
    }
    return bytes;
}

decimal_t decimal(const std::string &text) {
    constexpr auto most = std::numeric_limits<std::int64_t>::max();
    constexpr auto least = std::numeric_limits<std::int64_t>::min();
    decimal_t result;
    std::size_t at = 0;
    while (at < text.size() && (text[at] == ' ' || (text[at] >= '\t' && text[at] <= '\r'))) {
        ++at;
    }
    const bool negative = at < text.size() && text[at] == '-';
    if (negative || (at < text.size() && text[at] == '+')) {
        ++at;
    }
    bool beyond = false;
    for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at) {
        const std::int64_t digit = text[at] - '0';
        beyond = beyond || result.value > (most - digit) / 10;
        result.value = beyond ? most : result.value * 10 + digit;
        result.consumed = at + 1;
    }
    if (negative) {
        result.value = beyond ? least : -result.value;
    }
    return result;
}

std::string format(std::size_t size, const char *pattern, ...) {
    std::vector<char> text(size);
    va_list args;
    va_start(args, pattern);
    std::vsnprintf(text.data(), text.size(), pattern, args);
    va_end(args);
    return text.data();
}

} // namespace fuzz
