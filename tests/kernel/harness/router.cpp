#include "harness/router.h"

#include <cstdio>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include <arpa/inet.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kt {

Router::Router(Sandbox &owner, std::string on_link) : sandbox(owner), link(std::move(on_link)) {}

void Router::start(const std::vector<std::string> &prefixes, bool as_gateway) {
    const std::uint16_t router_lifetime = as_gateway ? 600 : 0;
    {
        const NamespaceVisit visit(sandbox.neighbour());
        write_file("/proc/sys/net/ipv6/conf/all/forwarding", "1");
    }
    if (access(program("RADVD").c_str(), X_OK) == 0) {
        start_daemon(prefixes, router_lifetime);
    } else {
        advertiser =
            std::make_unique<Advertiser>(sandbox.neighbour(), link, prefixes, router_lifetime);
    }
}

void Router::start_daemon(const std::vector<std::string> &prefixes, std::uint16_t router_lifetime) {
    const std::string configuration = sandbox.directory() + "/radvd." + link + ".conf";
    {
        std::ofstream file(configuration);
        // Intervals below the usual minimum are only taken together with the interval option.
        file << "interface " << link << " {\n  AdvSendAdvert on;\n  AdvIntervalOpt on;\n"
             << "  MinRtrAdvInterval 0.05;\n  MaxRtrAdvInterval 0.1;\n  MinDelayBetweenRAs 0.03;\n"
             << "  AdvDefaultLifetime " << router_lifetime << ";\n";
        for (const auto &prefix : prefixes) {
            file << "  prefix " << prefix
                 << "/64 { AdvValidLifetime 3600; AdvPreferredLifetime 3600; };\n";
        }
        file << "};\n";
    }
    // The router refuses a file that others could write.
    if (chmod(configuration.c_str(), 0644) != 0) {
        fail("chmod " + configuration);
    }
    spawn_options_t options;
    options.network = sandbox.neighbour();
    process = std::make_unique<Process>(
        sandbox,
        std::vector<std::string>{program("RADVD"), "-n", "-C", configuration, "-m", "stderr", "-p",
                                 sandbox.directory() + "/radvd." + link + ".pid"},
        options);
}

void Router::stop() {
    process.reset();
    advertiser.reset();
}

unsigned long received_advertisements() {
    std::istringstream counters(read_file("/proc/net/snmp6"));
    std::string name;
    unsigned long value = 0;
    while (counters >> name >> value) {
        if (name == "Icmp6InRouterAdvertisements") {
            return value;
        }
    }
    throw std::runtime_error("no count of router advertisements");
}

std::string automatic_address(const std::string &prefix, const std::string &hardware_address) {
    unsigned int octets[6];
    if (std::sscanf(hardware_address.c_str(), "%x:%x:%x:%x:%x:%x", &octets[0], &octets[1],
                    &octets[2], &octets[3], &octets[4], &octets[5]) != 6) {
        throw std::runtime_error("not a hardware address: " + hardware_address);
    }
    in6_addr address{};
    if (inet_pton(AF_INET6, prefix.c_str(), &address) != 1) {
        throw std::runtime_error("not a prefix: " + prefix);
    }
    const unsigned int identifier[8] = {octets[0] ^ 2U, octets[1], octets[2], 0xff,
                                        0xfe,           octets[3], octets[4], octets[5]};
    for (std::size_t i = 0; i < 8; ++i) {
        address.s6_addr[8 + i] = static_cast<unsigned char>(identifier[i]);
    }
    char text[INET6_ADDRSTRLEN];
    return std::string(inet_ntop(AF_INET6, &address, static_cast<char *>(text), sizeof text)) +
           "/64";
}

} // namespace kt
