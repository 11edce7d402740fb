// The decoders' records as text.
#pragma once

#include <string>
#include <vector>

#include "fakes/engine_fixture.h"
#include "netlink/decode.h"
#include "netlink/exact_buffer.h"

// "<index> <name> <hardware address>"
inline std::string text_of(const CKernInterface &link) {
    return std::to_string(link.ifindex) + " " + link.name + " " + link.hwaddr;
}

// "<index> <address>/<length> scope <scope>"
inline std::string text_of(const CKernAddress &address) {
    return std::to_string(address.ifindex) + " " + text_of(address.addr) + "/" +
           std::to_string(address.prefix_len) + " scope " + std::to_string(address.scope);
}

// "<index> <destination>/<length> via <gateway> protocol <protocol>"
inline std::string text_of(const CKernRoute &route) {
    return std::to_string(route.ifindex) + " " + text_of(route.dst) + "/" +
           std::to_string(route.dst_len) + " via " + text_of(route.gateway) + " protocol " +
           std::to_string(route.protocol);
}

// The records that a decoder finds.
template <typename Record>
strings decoded(std::vector<Record> (*decode)(const unsigned char *, int),
                const unsigned char *bytes, int length) {
    strings all;
    for (const auto &record : decode(bytes, length)) {
        all.push_back(text_of(record));
    }
    return all;
}

// The same of a datagram at the end of its block of memory (see exact_buffer.h).
template <typename Record>
strings decoded(std::vector<Record> (*decode)(const unsigned char *, int),
                const fake_libnl::bytes_t &datagram, bool odd) {
    const exact_buffer buffer(datagram, odd);
    return decoded(decode, buffer.bytes(), buffer.length());
}
inline strings decoded_links(const fake_libnl::bytes_t &datagram, bool odd = false) {
    return decoded(decode_links, datagram, odd);
}
inline strings decoded_addrs(const fake_libnl::bytes_t &datagram, bool odd = false) {
    return decoded(decode_addrs, datagram, odd);
}
inline strings decoded_routes(const fake_libnl::bytes_t &datagram, bool odd = false) {
    return decoded(decode_routes, datagram, odd);
}
