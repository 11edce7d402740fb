// CRC-32, for noticing damage.
#pragma once

#include <cstdint>
#include <string_view>

namespace tav {

// The CRC-32 of ISO 3309 (polynomial 0x04c11db7, reflected) of `bytes`. `before`: that of the bytes
// before them.
std::uint32_t crc32(std::string_view bytes, std::uint32_t before = 0);

} // namespace tav
