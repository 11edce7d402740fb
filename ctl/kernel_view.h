// The kernel's view: links, IPv6 addresses and IPv6 routes of this network namespace, read by dumps
// and decoded as the daemon decodes them; beside it what the daemon does not need to know but a
// person does (flags, life times, tables).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sync/model.h"

namespace ctl {

struct kernel_link_t {
    std::int32_t index = 0;
    std::string name;
    std::string hwaddr;        // empty: not an Ethernet link, or one without hardware address
    bool ethernet = false;     // of the Ethernet kind
    bool up = false;           // switched on
    bool carrier = false;      // up and connected
    bool has_ipv6 = false;     // IPv6 exists on it at all (not so with an MTU below 1280)
    bool ipv6_refused = false; // the setting disable_ipv6: the kernel takes no address
};

struct kernel_address_t {
    CKernAddress address;        // as the daemon decodes it
    bool has_address = true;     // false: listed without its bytes, so the daemon skips it
    bool has_peer = false;       // then `address` is the peer's
    std::uint32_t flags = 0;     // IFA_F_..., if_addr.h
    std::uint32_t valid = 0;     // seconds left; forever: no end
    std::uint32_t preferred = 0; // likewise, until it is deprecated
    std::uint8_t origin = 0;     // IFAPROT_...; 0: unknown, or a user's
};
constexpr std::uint32_t forever = 0xffffffff;

struct kernel_route_t {
    CKernRoute route;       // as the daemon decodes it
    bool has_index = true;  // false: no single output link, so the daemon skips it
    bool multipath = false; // several gateways in one route
    std::uint32_t table = 0;
    std::uint8_t type = 0; // RTN_..., rtnetlink(7)
};

struct kernel_view_t {
    std::vector<kernel_link_t> links; // in the kernel's order
    std::vector<kernel_address_t> addresses;
    std::vector<kernel_route_t> routes;
};

// Throws std::runtime_error when the kernel cannot be asked.
kernel_view_t read_kernel();

// One message of a dump as a record; `length` bytes from its netlink header on. An item that the
// daemon's decoder skips comes with what could be read all the same.
kernel_link_t link_of_message(const unsigned char *bytes, int length);
kernel_address_t address_of_message(const unsigned char *bytes, int length);
kernel_route_t route_of_message(const unsigned char *bytes, int length);

} // namespace ctl
