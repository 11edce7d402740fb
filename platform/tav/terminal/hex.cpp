#include "terminal/hex.h"

#include <charconv>

namespace tav::terminal {

std::string to_hex(std::string_view bytes) {
    constexpr std::string_view digits = "0123456789abcdef";
    std::string hex;
    for (const char byte : bytes) {
        const auto value = static_cast<unsigned char>(byte);
        hex.push_back(digits[value >> 4U]);
        hex.push_back(digits[value & 0xfU]);
    }
    return hex;
}

std::optional<std::string> from_hex(std::string_view hex) {
    if (hex.size() % 2 != 0) {
        return std::nullopt;
    }
    std::string bytes;
    for (; !hex.empty(); hex.remove_prefix(2)) {
        unsigned char byte = 0;
        const char *end = hex.data() + 2;
        const auto [stop, error] = std::from_chars(hex.data(), end, byte, 16);
        if (error != std::errc() || stop != end) {
            return std::nullopt;
        }
        bytes.push_back(static_cast<char>(byte));
    }
    return bytes;
}

} // namespace tav::terminal
