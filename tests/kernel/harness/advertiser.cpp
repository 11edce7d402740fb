#include "harness/advertiser.h"

#include <cerrno>
#include <stdexcept>

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/icmp6.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "harness/sandbox.h"

namespace kt {
namespace {

template <typename T>
void append(std::vector<unsigned char> &bytes, const T &part) {
    const auto *start = reinterpret_cast<const unsigned char *>(&part);
    bytes.insert(bytes.end(), start, start + sizeof part);
}

in6_addr bytes_of(const std::string &address) {
    in6_addr bytes{};
    if (inet_pton(AF_INET6, address.c_str(), &bytes) != 1) {
        throw std::runtime_error("not an IPv6 address: " + address);
    }
    return bytes;
}

std::vector<unsigned char> compose(const std::vector<std::string> &prefixes,
                                   std::uint16_t router_lifetime,
                                   std::uint32_t valid_seconds = 3600) {
    std::vector<unsigned char> bytes;
    nd_router_advert head{};
    head.nd_ra_type = ND_ROUTER_ADVERT; // the kernel adds the checksum
    head.nd_ra_curhoplimit = 64;
    head.nd_ra_router_lifetime = htons(router_lifetime);
    append(bytes, head);
    for (const auto &prefix : prefixes) {
        nd_opt_prefix_info option{};
        option.nd_opt_pi_type = ND_OPT_PREFIX_INFORMATION;
        option.nd_opt_pi_len = sizeof option / 8;
        option.nd_opt_pi_prefix_len = 64;
        option.nd_opt_pi_flags_reserved = ND_OPT_PI_FLAG_ONLINK | ND_OPT_PI_FLAG_AUTO;
        option.nd_opt_pi_valid_time = htonl(valid_seconds);
        option.nd_opt_pi_preferred_time = htonl(valid_seconds);
        option.nd_opt_pi_prefix = bytes_of(prefix);
        append(bytes, option);
    }
    return bytes;
}

int open_socket(const std::string &link) {
    const int fd = socket(AF_INET6, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMPV6);
    const int index = static_cast<int>(if_nametoindex(link.c_str()));
    const int hops =
        255; // advertisements with less are ignored, because they might come from another network
    if (fd < 0 || index == 0 ||
        setsockopt(fd, IPPROTO_IPV6, IPV6_MULTICAST_IF, &index, sizeof index) != 0 ||
        setsockopt(fd, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, &hops, sizeof hops) != 0) {
        fail("a socket for advertisements on " + link);
    }
    return fd;
}

// Returns 0 or the errno value.
int send_to_everyone(int fd, const std::vector<unsigned char> &advertisement) {
    sockaddr_in6 everyone{};
    everyone.sin6_family = AF_INET6;
    everyone.sin6_addr = bytes_of("ff02::1");
    return sendto(fd, advertisement.data(), advertisement.size(), 0,
                  reinterpret_cast<const sockaddr *>(&everyone), sizeof everyone) < 0
               ? errno
               : 0;
}

} // namespace

Advertiser::Advertiser(int network, const std::string &link,
                       const std::vector<std::string> &prefixes, std::uint16_t router_lifetime)
    : advertisement(compose(prefixes, router_lifetime)) {
    {
        const NamespaceVisit visit(network);
        fd = open_socket(link);
    }
    thread = std::thread([this] { work(); });
}

Advertiser::~Advertiser() {
    stopping = true;
    thread.join();
    close(fd);
}

void Advertiser::work() const {
    while (!stopping) {
        // Refused until the link has its own address; a later one succeeds.
        send_to_everyone(fd, advertisement);
        usleep(75000);
    }
}

int advertise_once(int network, const std::string &link, const std::string &prefix,
                   std::uint32_t valid_seconds) {
    const NamespaceVisit visit(network);
    const int fd = open_socket(link);
    const int error = send_to_everyone(fd, compose({prefix}, 0, valid_seconds));
    close(fd);
    return error;
}

} // namespace kt
