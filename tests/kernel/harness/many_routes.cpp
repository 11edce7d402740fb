#include "harness/many_routes.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include <arpa/inet.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include "harness/netlink.h"
#include "harness/sandbox.h"

namespace kt {
namespace {

constexpr int at_once = 100; // requests in one call
constexpr unsigned char protocol_bgp = 186;

} // namespace

ManyRoutes::ManyRoutes(int link_index, const std::string &gateway)
    : fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)), index(link_index),
      through(16) {
    if (fd < 0 || inet_pton(AF_INET6, gateway.c_str(), through.data()) != 1) {
        fail("a socket for routes through " + gateway);
    }
}

ManyRoutes::~ManyRoutes() {
    close(fd);
}

void ManyRoutes::change(int first, int count, bool added) {
    for (int i = 0; i < count; ++i) {
        append(first + i, added);
        if ((i + 1) % at_once == 0 || i + 1 == count) {
            send_all();
        }
    }
}

void ManyRoutes::append(int number, bool added) {
    Message message(added ? RTM_NEWROUTE : RTM_DELROUTE,
                    NLM_F_REQUEST | (added ? NLM_F_CREATE | NLM_F_EXCL : 0));
    rtmsg header{};
    header.rtm_family = AF_INET6;
    header.rtm_dst_len = 48;
    header.rtm_table = RT_TABLE_MAIN;
    header.rtm_protocol = protocol_bgp;
    header.rtm_type = RTN_UNICAST;
    std::array<unsigned char, 16> destination{0x2a, 0};
    for (unsigned i = 0; i < 4; ++i) {
        destination.at(2 + i) = static_cast<unsigned char>(number >> (24 - 8 * i));
    }
    message.append(header)
        .attribute(RTA_DST, destination.data(), destination.size())
        .attribute(RTA_GATEWAY, through.data(), through.size())
        .attribute(RTA_OIF, &index, sizeof index);
    const auto bytes = message.bytes();
    requests.insert(requests.end(), bytes.begin(), bytes.end());
}

// The kernel has carried them out when the call returns.
void ManyRoutes::send_all() {
    if (send(fd, requests.data(), requests.size(), 0) < 0) {
        fail("changing routes");
    }
    requests.clear();
    std::array<unsigned char, 8192> answer{};
    if (recv(fd, answer.data(), answer.size(), MSG_DONTWAIT) > 0) {
        nlmsgerr error{};
        std::memcpy(&error, answer.data() + NLMSG_HDRLEN, sizeof error);
        throw std::runtime_error(std::string("the kernel refuses a route: ") +
                                 std::strerror(-error.error));
    }
}

} // namespace kt
