// The neighbour's router: advertises prefixes on a link of the neighbour's namespace.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "harness/advertiser.h"
#include "harness/process.h"
#include "harness/rtnl.h"

namespace kt {

class Router {
public:
    // `link` exists in the neighbour's namespace and is up.
    Router(Sandbox &sandbox, std::string link);

    // Advertises the /64 prefixes some ten times a second until stopped. With `as_gateway` false
    // the router does not offer itself as a default router, so that no default route results. The
    // router is radvd or, if that is not installed, the test itself.
    void start(const std::vector<std::string> &prefixes, bool as_gateway = false);
    void stop();

private:
    void start_daemon(const std::vector<std::string> &prefixes, std::uint16_t router_lifetime);

    Sandbox &sandbox;
    std::string link;
    std::unique_ptr<Process> process;
    std::unique_ptr<Advertiser> advertiser;
};

// How many advertisements the calling process's network namespace has received.
unsigned long received_advertisements();

// The address that a link forms in a /64 prefix ("2001:db8:1::") from its hardware address.
std::string automatic_address(const std::string &prefix, const std::string &hardware_address);

} // namespace kt
