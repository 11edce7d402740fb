// The kernel's view: links, IPv6 addresses and IPv6 routes of this network namespace, read by dumps
// and decoded with the daemon's decoders, plus details for people that the daemon does not need
// (flags, life times, tables).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sync/model.h"

namespace ctl {

struct kernel_link_t {
    std::int32_t index = 0;
    std::string name;
    std::string hwaddr;    // empty: not an Ethernet link, or one without hardware address
    bool ethernet = false; // the link type is Ethernet
    bool up = false;       // administratively up
    bool carrier = false;  // up and connected
    bool has_ipv6 = false; // the kernel has IPv6 on the link (it has not if the MTU is below 1280)
    bool ipv6_refused = false; // disable_ipv6 is set: the kernel accepts no address
};

struct kernel_address_t {
    CKernAddress address;        // as the daemon decodes it
    bool has_address = true;     // false: listed without its bytes, so the daemon skips it
    bool has_peer = false;       // then `address` is the peer's
    std::uint32_t flags = 0;     // IFA_F_..., if_addr.h
    std::uint32_t valid = 0;     // seconds left; forever: unlimited
    std::uint32_t preferred = 0; // seconds until it is deprecated; forever: never
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

// Throws std::runtime_error when the kernel does not answer.
kernel_view_t read_kernel();

// Decodes one message of a dump, `length` bytes beginning with its netlink header. An item that the
// daemon's decoder skips is returned with the fields that could be read.
kernel_link_t link_of_message(const unsigned char *bytes, int length);
kernel_address_t address_of_message(const unsigned char *bytes, int length);
kernel_route_t route_of_message(const unsigned char *bytes, int length);

} // namespace ctl
