#include "sync/model.h"

#include <cstring>

namespace {

bool same_bytes(const in6_addr &left, const in6_addr &right) {
    return std::memcmp(&left, &right, sizeof left) == 0;
}

bool all_zero(const in6_addr &addr) {
    return same_bytes(addr, in6_addr{});
}

} // namespace

bool same_address(const CAddress &left, const CAddress &right) {
    return same_bytes(left.addr, right.addr);
}

bool address_and_prefix_less::operator()(const CAddress &left, const CAddress &right) const {
    const int order = std::memcmp(&left.addr, &right.addr, sizeof left.addr);
    return order != 0 ? order < 0 : left.prefix_len < right.prefix_len;
}

bool is_default_route(const CRoute &route) {
    return all_zero(route.dst);
}

bool has_gateway(const CRoute &route) {
    return !all_zero(route.gateway);
}

bool same_gateway(const CRoute &left, const CRoute &right) {
    return same_bytes(left.gateway, right.gateway);
}
