// Bytes as hexadecimal text.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tav::terminal {

// Two lower-case digits per byte.
std::string to_hex(std::string_view bytes);

// The reverse, upper case allowed; empty if the text is not hexadecimal.
std::optional<std::string> from_hex(std::string_view hex);

} // namespace tav::terminal
