// The texts of addresses, read and written.
#include <arpa/inet.h>

#include "fuzz/address_reference.h"
#include "fuzz/fuzz.h"
#include "sync/errors.h"
#include "sync/sync.h"

namespace {

using reference::bytes_of;

std::string outcome(const in6_addr &addr, int prefix_len) {
    return bytes_of(addr) + "/" + std::to_string(prefix_len);
}

std::string actual(const std::string &text, bool prefix_required) {
    try {
        const CAddress addr = CSync::str_to_addr(text, prefix_required);
        return outcome(addr.addr, addr.prefix_len);
    } catch (const sync_addr_err &fault) {
        return fault.what();
    }
}

std::string expected(const std::string &text, bool prefix_required) {
    const reference::address_t result = reference::address(text, prefix_required);
    return result.fault.empty() ? outcome(result.addr, result.prefix_len) : result.fault;
}

// The written text reads as the same address again, and has these bytes.
void write_and_read(const std::string &bytes, int prefix_len) {
    in6_addr addr{};
    bytes.copy(reinterpret_cast<char *>(&addr), sizeof addr);
    const auto length = static_cast<unsigned char>(prefix_len);
    const std::string bare = CSync::in6addr_to_str(addr, length, false);
    const std::string whole = CSync::in6addr_to_str(addr, length, true);
    in6_addr converted{};
    fuzz::require(inet_pton(AF_INET6, bare.c_str(), &converted) == 1, "no address was written");
    fuzz::require_same(bytes_of(converted), bytes_of(addr), "another address was written");
    fuzz::require_same(whole, bare + "/" + std::to_string(prefix_len), "another text was written");
    fuzz::require_same(actual(bare, false), outcome(addr, 0), "a written address reads otherwise");
    if (prefix_len >= 1 && prefix_len <= 128) {
        fuzz::require_same(actual(whole, true), outcome(addr, prefix_len),
                           "a written address and prefix length read otherwise");
    }
}

} // namespace

// The input is the text to be read; its first 17 bytes are the address to be written.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const std::string text(data, data + size);
    for (const bool prefix_required : {false, true}) {
        fuzz::require_same(actual(text, prefix_required), expected(text, prefix_required),
                           "the text reads otherwise");
    }
    if (size >= 17) {
        write_and_read(text.substr(0, 16), data[16]);
    }
    return 0;
}
