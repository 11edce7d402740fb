// A test's requests to the kernel's routing subsystem, by libnl: links, addresses and routes of one
// network namespace. Waits for the kernel's answer to each. Everything throws std::runtime_error if
// the kernel refuses, except the try_ functions, which return the errno value (0: done).
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <netlink/route/link.h>

#include "harness/netlink.h"

namespace kt {

using link_ptr = std::unique_ptr<rtnl_link, released_by<rtnl_link_put>>;

struct kernel_link_t {
    int index = 0;
    std::string name;
    std::string hardware_address; // "00:1a:2b:3c:4d:5e"
};

// An IPv6 address of a link in the kernel.
struct kernel_address_t {
    std::string text;        // "2001:db8::5/64"
    std::uint32_t flags = 0; // IFA_F_...
    std::uint8_t scope = 0;
    std::uint32_t valid_seconds = 0; // 0xffffffff: for ever
};

// Options for adding an address.
struct address_options_t {
    std::uint32_t flags = 0;
    std::uint32_t valid_seconds = 0; // 0: no life times are sent
    bool replace = false;
    std::string peer{}; // with a peer, `text` is the own address
};

// An IPv6 route; also what is sent to add or delete one.
struct kernel_route_t {
    std::string destination = "::/0";
    std::string gateway{}; // empty: none
    std::string link{};    // name; empty: none (for example a multipath route)
    std::uint8_t protocol = 4;
    std::uint32_t metric = 0; // 0: the kernel's own choice
    std::uint32_t table = 254;
    std::vector<std::string> more_gateways{}; // siblings of a multipath route, on the same link
};

class Kernel {
public:
    // The socket belongs to that namespace from then on; the descriptor is not kept.
    explicit Kernel(int namespace_fd);
    Kernel(const Kernel &) = delete;
    Kernel &operator=(const Kernel &) = delete;

    // Links. `add_veth` puts the other end into another namespace.
    void add_veth(const std::string &name, const std::string &peer, int peer_namespace);
    void add_bridge(const std::string &name);
    void set_master(const std::string &name, const std::string &master); // empty: none
    void delete_link(const std::string &name);
    void rename(const std::string &name, const std::string &new_name);
    void move_link(const std::string &name, int to_namespace);
    void set_up(const std::string &name, bool up = true);
    void set_hardware_address(const std::string &name, const std::string &octets);
    void set_mtu(const std::string &name, std::uint32_t mtu);
    std::vector<kernel_link_t> links();
    // 0 when there is no such link.
    int index(const std::string &name);
    std::string hardware_address(const std::string &name);

    // Addresses, written "2001:db8::5/64".
    void add_address(const std::string &link, const std::string &text,
                     const address_options_t &options = {});
    void delete_address(const std::string &link, const std::string &text);
    int try_add_address(const std::string &link, const std::string &text,
                        const address_options_t &options = {});
    int try_delete_address(const std::string &link, const std::string &text);
    std::vector<kernel_address_t> addresses(const std::string &link);
    bool has_address(const std::string &link, const std::string &text);
    // Whether an address of a link with a carrier is being checked for duplicates. The kernel
    // announces it once more when that is over, on a busy machine much later.
    bool is_checking();
    // The first link-local address with its prefix length; empty when there is none.
    std::string link_local(const std::string &link);

    // Routes of the main table.
    void add_route(const kernel_route_t &route);
    void delete_route(const kernel_route_t &route);
    int try_add_route(const kernel_route_t &route);
    int try_delete_route(const kernel_route_t &route);
    std::vector<kernel_route_t> routes();
    // The gateways of the link's static (protocol 4) default routes, siblings included.
    std::vector<std::string> static_gateways(const std::string &link);

    // Sends one datagram as it is to a multicast group, as the kernel would send a notification.
    void forge(unsigned int group, std::vector<unsigned char> datagram);

private:
    int answer(int status);
    std::vector<object_ptr> dump(int type, int family);
    link_ptr find_link(const std::string &name);
    void change_link(const std::string &name, const std::function<void(rtnl_link *)> &change);

    socket_ptr netlink;
    int refusal = 0; // the errno value of the last error message
};

} // namespace kt
