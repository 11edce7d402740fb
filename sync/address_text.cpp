// The texts of IPv6 addresses.

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>

#include "sync/errors.h"
#include "sync/sync.h"

namespace {

constexpr long max_prefix_len = 128;

} // namespace

tk_string CSync::in6addr_to_str(const in6_addr &addr, unsigned char prefix_len, bool with_prefix) {
    char text[47];
    if (inet_ntop(AF_INET6, &addr, text, sizeof text) == nullptr) {
        throw sync_addr_err(error_text(
            "%s: Can't convert IPv6 address to string",
            "static tk_string CSync::in6addr_to_str(const in6_addr&, unsigned char, bool)"));
    }
    if (!with_prefix) {
        return text;
    }
    char suffix[16];
    std::snprintf(suffix, sizeof suffix, "/%u", prefix_len);
    return tk_string(text) + suffix;
}

CAddress CSync::str_to_addr(const tk_string &text, bool prefix_required) {
    constexpr const char *signature = "static CAddress CSync::str_to_addr(const tk_string&, bool)";
    const std::size_t slash = text.find('/');
    if (slash == tk_string::npos && prefix_required) {
        throw sync_addr_err(
            error_text("%s: No prefix specified in address string: '%s'", signature, text.c_str()));
    }

    CAddress result;
    const tk_string addr_part = text.substr(0, slash);
    if (inet_pton(AF_INET6, addr_part.c_str(), &result.addr) != 1) {
        throw sync_addr_err(error_text("%s: Can't convert string '%s' to IPv6 address", signature,
                                       addr_part.c_str()));
    }
    if (slash == tk_string::npos) {
        return result;
    }

    const tk_string prefix_part = text.substr(slash + 1);
    char *end = nullptr;
    const long prefix_len = std::strtol(prefix_part.c_str(), &end, 10);
    // A length of 0 is refused on purpose: it means "unknown".
    if (end != prefix_part.c_str() + prefix_part.size() || prefix_len < 1 ||
        prefix_len > max_prefix_len) {
        throw sync_addr_err(
            error_text("%s: Invalid prefix length '%s'", signature, prefix_part.c_str()));
    }
    result.prefix_len = static_cast<std::uint8_t>(prefix_len);
    return result;
}
