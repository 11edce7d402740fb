#include "fuzz/address_reference.h"

#include <arpa/inet.h>

#include "fuzz/fuzz.h"

namespace reference {

std::string bytes_of(const in6_addr &addr) {
    return std::string(reinterpret_cast<const char *>(&addr), sizeof addr);
}

address_t address(const std::string &text, bool prefix_required) {
    constexpr const char *who = "static CAddress CSync::str_to_addr(const tk_string&, bool)";
    address_t result;
    const std::vector<std::string> parts = fuzz::split(text, '/');
    if (parts.size() == 1 && prefix_required) {
        result.fault =
            fuzz::format(256, "%s: No prefix specified in address string: '%s'", who, text.c_str());
        return result;
    }
    if (inet_pton(AF_INET6, parts[0].c_str(), &result.addr) != 1) {
        result.fault = fuzz::format(256, "%s: Can't convert string '%s' to IPv6 address", who,
                                    parts[0].c_str());
        return result;
    }
    if (parts.size() == 1) {
        return result;
    }
    const std::string prefix = text.substr(parts[0].size() + 1);
    const fuzz::decimal_t length = fuzz::decimal(prefix);
    // Without a digit nothing is consumed, so an empty text is consumed completely; its value is 0.
    if (length.consumed == prefix.size() && length.value >= 1 && length.value <= 128) {
        result.prefix_len = static_cast<int>(length.value);
    } else {
        result.fault = fuzz::format(256, "%s: Invalid prefix length '%s'", who, prefix.c_str());
    }
    return result;
}

} // namespace reference
