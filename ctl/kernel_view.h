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
    bool is_part = false;      // of a bridge, a bond or the like
    std::uint32_t mtu = 0;
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

// One gateway of a route. The kernel joins default routes of equal metric, also those of different
// links, into one route with several gateways, which the daemon skips when the kernel lists it.
struct kernel_route_t {
    CKernRoute route;       // as the daemon decodes it; of a joined one, its part via this gateway
    bool has_index = true;  // false: no single output link, so the daemon skips it
    bool multipath = false; // joined with others
    std::uint32_t table = 0;
    std::uint32_t metric = 0;
    std::uint8_t type = 0; // RTN_..., rtnetlink(7)
};
constexpr std::uint32_t usual_metric = 1024; // of a route that is added without one

struct kernel_view_t {
    std::vector<kernel_link_t> links; // in the kernel's order
    std::vector<kernel_address_t> addresses;
    std::vector<kernel_route_t> routes;
};

// Throws std::runtime_error when the kernel does not answer.
kernel_view_t read_kernel();

// Decodes one message of a dump, `length` bytes beginning with its netlink header. An item that the
// daemon's decoder skips is returned with the fields that could be read. A route has an entry for
// each of its gateways.
kernel_link_t link_of_message(const unsigned char *bytes, int length);
kernel_address_t address_of_message(const unsigned char *bytes, int length);
std::vector<kernel_route_t> routes_of_message(const unsigned char *bytes, int length);

} // namespace ctl
