#include "service/checksum.h"

#include <array>

namespace tav {

namespace {

constexpr std::uint32_t reflected_polynomial = 0xedb88320;

constexpr std::array<std::uint32_t, 256> make_table() {
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t byte = 0; byte < table.size(); ++byte) {
        std::uint32_t rest = byte;
        for (int bit = 0; bit < 8; ++bit) {
            rest = (rest >> 1) ^ ((rest & 1) != 0 ? reflected_polynomial : 0);
        }
        table[byte] = rest;
    }
    return table;
}

} // namespace

std::uint32_t crc32(std::string_view bytes, std::uint32_t before) {
    static constexpr std::array<std::uint32_t, 256> table = make_table();
    std::uint32_t rest = ~before;
    for (const char byte : bytes) {
        rest = (rest >> 8) ^ table[(rest ^ static_cast<unsigned char>(byte)) & 0xff];
    }
    return ~rest;
}

} // namespace tav
