// Bytes as hexadecimal text.
#ifndef TAV_TOOL_HEX_H
#define TAV_TOOL_HEX_H

#include <optional>
#include <string>
#include <string_view>

namespace tav::tool {

// Two lower-case digits a byte.
std::string to_hex(std::string_view bytes);

// The reverse, upper case allowed; empty when the text is anything else.
std::optional<std::string> from_hex(std::string_view hex);

} // namespace tav::tool

#endif
