#include "advertiser.h"

#include <cerrno>

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/icmp6.h>
#include <sys/socket.h>
#include <unistd.h>

#include "harness/sandbox.h"

namespace model {
namespace {

struct advertisement_t {
    nd_router_advert header;
    nd_opt_prefix_info prefix;
};

} // namespace

int advertise(int neighbour_namespace, const std::string &link, const std::string &prefix,
              unsigned int valid_seconds) {
    const kt::NamespaceVisit visit(neighbour_namespace);
    const int fd = socket(AF_INET6, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMPV6);
    if (fd < 0) {
        return errno;
    }
    advertisement_t message{};
    message.header.nd_ra_type = ND_ROUTER_ADVERT;
    message.prefix.nd_opt_pi_type = ND_OPT_PREFIX_INFORMATION;
    message.prefix.nd_opt_pi_len = sizeof message.prefix / 8;
    message.prefix.nd_opt_pi_prefix_len = 64;
    message.prefix.nd_opt_pi_flags_reserved = ND_OPT_PI_FLAG_ONLINK | ND_OPT_PI_FLAG_AUTO;
    message.prefix.nd_opt_pi_valid_time = htonl(valid_seconds);
    message.prefix.nd_opt_pi_preferred_time = htonl(valid_seconds);
    inet_pton(AF_INET6, prefix.c_str(), &message.prefix.nd_opt_pi_prefix);

    sockaddr_in6 to{};
    to.sin6_family = AF_INET6;
    to.sin6_scope_id = if_nametoindex(link.c_str());
    inet_pton(AF_INET6, "ff02::1", &to.sin6_addr);
    const int farthest = 255; // anything less is not taken for a neighbour's
    setsockopt(fd, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, &farthest, sizeof farthest);
    const ssize_t sent =
        sendto(fd, &message, sizeof message, 0, reinterpret_cast<const sockaddr *>(&to), sizeof to);
    const int error = sent < 0 ? errno : 0;
    close(fd);
    return error;
}

} // namespace model
