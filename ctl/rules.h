// What the daemon adopts, and what the kernel accepts.
#pragma once

#include <string>

#include "ctl/kernel_view.h"

namespace ctl {

// Whether the daemon considers links of this name.
bool has_prefix(const std::string &link, const std::string &prefix);

// The number of the interface node of a link: N for the prefix followed by N - 1 in decimal; 0 for
// any other name.
long interface_number(const std::string &link, const std::string &prefix);

// The prefix that makes the daemon manage a link of this name; "PREFIX" if none does.
std::string prefix_of(const std::string &link);

// Why the kernel does not accept this address on a link or as a gateway ("a multicast address",
// ...); null when it does.
const char *unfit_kind(const in6_addr &address);

// The type under which the daemon stores an address of the kernel.
std::int32_t type_of_scope(std::uint8_t scope);
// Whether a stored address type agrees with the scope of the kernel's address.
bool type_agrees(std::int32_t type, std::uint8_t scope);
// Whether the route is a static default route with a gateway; the daemon adopts it unless the
// kernel has joined it with others.
bool is_static(const kernel_route_t &route);
bool is_adopted(const kernel_route_t &route);
// Whether some route of the link without a gateway contains the address, so that the kernel accepts
// it as a gateway.
bool is_reachable(const kernel_view_t &kernel, std::int32_t ifindex, const in6_addr &gateway);
// Whether the kernel has the address, and a person or a script set it there for good.
bool is_configured(const kernel_address_t &address);
// Whether the link has such an address, or a default gateway that the daemon adopts.
bool is_configured(const kernel_view_t &kernel, std::int32_t ifindex);
// Whether `length` bits of both are the same.
bool lies_in(const in6_addr &address, const in6_addr &network, unsigned length);

// The command line that replaces the route by the stored one. It begins with a nudge, which fails
// if tandrel could not add that one.
std::string replacement(const std::string &link, const kernel_route_t &route);

} // namespace ctl
