#include "fakes/fake_libnl.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <utility>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/if_arp.h>
#include <linux/rtnetlink.h>
#include <netlink/attr.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <netlink/socket.h>

#include "fakes/fake_memory.h"
#include "fakes/fake_os.h"
#include "fakes/log_capture.h"

// This fake's definitions of the library's two opaque types.
struct nl_sock {
    int number;
};
struct nl_msg {
    fake_libnl::message_t content;
};

namespace fake_libnl {
namespace {

struct reception_t {
    int result;
    bytes_t datagram;
};

// State between two calls, in addition to the part that tests see.
struct inside_t {
    std::deque<reception_t> receptions;
    std::set<const nl_sock *> sockets;
    std::set<const nl_msg *> messages;
};
inside_t &inside() {
    static inside_t instance;
    return instance;
}

void reset() {
    for (const auto *socket : inside().sockets) {
        delete socket;
    }
    for (const auto *message : inside().messages) {
        delete message;
    }
    inside() = inside_t{};
    state() = state_t{};
}
const fakes::reset_hook hook(&reset);

std::string number(long value) {
    return std::to_string(value);
}

std::string hex(const bytes_t &bytes) {
    std::string text;
    for (const unsigned char byte : bytes) {
        std::array<char, 4> pair{};
        std::snprintf(pair.data(), pair.size(), "%02x", static_cast<unsigned int>(byte));
        text += pair.data();
    }
    return text;
}

bytes_t bytes_of(const void *data, std::size_t size) {
    const auto *begin = static_cast<const unsigned char *>(data);
    return {begin, begin + size};
}

void append_padded(bytes_t &to, const void *data, std::size_t size, std::size_t pad) {
    const bytes_t bytes = bytes_of(data, size);
    to.insert(to.end(), bytes.begin(), bytes.end());
    while (pad > 0 && to.size() % pad != 0) {
        to.push_back(0);
    }
}

void expect_alive(const nl_sock *socket, const char *caller) {
    EXPECT_EQ(inside().sockets.count(socket), 1U) << caller << " on a socket that is not alive";
}

void expect_alive(const nl_msg *message, const char *caller) {
    EXPECT_EQ(inside().messages.count(message), 1U) << caller << " on a message that is not alive";
}

int answer(results_t &results, int otherwise) {
    int result = otherwise;
    results.next(result);
    return result;
}

} // namespace

state_t &state() {
    static state_t instance;
    return instance;
}

results_t &results_t::then(int result) {
    queue.push_back(result);
    return *this;
}

void results_t::always(int result) {
    has_always = true;
    always_result = result;
}

bool results_t::next(int &result) {
    if (!queue.empty()) {
        result = queue.front();
        queue.pop_front();
        return true;
    }
    if (has_always) {
        result = always_result;
    }
    return has_always;
}

void results_t::clear() {
    *this = results_t{};
}

void queue_datagram(const bytes_t &datagram) {
    inside().receptions.push_back({static_cast<int>(datagram.size()), datagram});
}

void queue_recv_result(int result) {
    inside().receptions.push_back({result, {}});
}

std::size_t queued() {
    return inside().receptions.size();
}

void drop_datagrams() {
    inside().receptions.clear();
}

} // namespace fake_libnl

using namespace fake_libnl; // NOLINT(google-build-using-namespace)

extern "C" {

nl_sock *nl_socket_alloc() {
    const fake_memory::spare spare;
    journal::add("nl_socket_alloc()");
    if (state().failing_socket_allocs > 0) {
        --state().failing_socket_allocs;
        return nullptr;
    }
    auto *socket = new nl_sock{static_cast<int>(++state().sockets_allocated)};
    inside().sockets.insert(socket);
    return socket;
}

void nl_socket_free(nl_sock *socket) {
    const fake_memory::spare spare;
    journal::add("nl_socket_free()");
    if (socket == nullptr) {
        return; // as the library does
    }
    expect_alive(socket, "nl_socket_free");
    ++state().sockets_freed;
    if (inside().sockets.erase(socket) == 1) {
        delete socket;
    }
}

const char *nl_geterror(int error) {
    return error == 0 ? "Success" : "Unspecific failure";
}

int nl_connect(nl_sock *socket, int protocol) {
    const fake_memory::spare spare;
    journal::add("nl_connect(" + number(protocol) + ")");
    expect_alive(socket, "nl_connect");
    return answer(state().connect, 0);
}

int nl_socket_add_memberships(nl_sock *socket, int group, ...) {
    const fake_memory::spare spare;
    std::string groups;
    va_list args;
    va_start(args, group);
    for (int one = group; one != 0; one = va_arg(args, int)) {
        groups += number(one) + ", ";
    }
    va_end(args);
    journal::add("nl_socket_add_memberships(" + groups + "0)");
    expect_alive(socket, "nl_socket_add_memberships");
    return answer(state().add_memberships, 0);
}

int nl_socket_set_nonblocking(const nl_sock *socket) {
    const fake_memory::spare spare;
    journal::add("nl_socket_set_nonblocking()");
    expect_alive(socket, "nl_socket_set_nonblocking");
    return answer(state().set_nonblocking, 0);
}

int nl_socket_get_fd(const nl_sock *socket) {
    const fake_memory::spare spare;
    expect_alive(socket, "nl_socket_get_fd");
    return answer(state().get_fd, state().fd);
}

int nl_send_simple(nl_sock *socket, int type, int flags, void *data, size_t size) {
    const fake_memory::spare spare;
    const message_t sent{type, flags, bytes_of(data, size)};
    journal::add("nl_send_simple(" + number(type) + ", " + number(flags) + ", " + hex(sent.body) +
                 ")");
    expect_alive(socket, "nl_send_simple");
    const int result = answer(state().send_simple, static_cast<int>(NLMSG_HDRLEN + size));
    if (result > 0) {
        state().requests.push_back(sent);
    }
    return result;
}

int nl_recv(nl_sock *socket, sockaddr_nl *peer, unsigned char **buffer, ucred **credentials) {
    const fake_memory::spare spare;
    journal::add("nl_recv()");
    expect_alive(socket, "nl_recv");
    EXPECT_NE(peer, nullptr);
    EXPECT_EQ(*buffer, nullptr);
    EXPECT_EQ(credentials, nullptr);
    if (inside().receptions.empty()) {
        return -4; // would block
    }
    const reception_t next = std::move(inside().receptions.front());
    inside().receptions.pop_front();
    if (next.result > 0) {
        *buffer = static_cast<unsigned char *>(std::malloc(next.datagram.size()));
        std::memcpy(*buffer, next.datagram.data(), next.datagram.size());
        if (state().watch_datagrams) {
            fake_os::watch_free(*buffer);
        }
    }
    return next.result;
}

nl_msg *nlmsg_alloc_simple(int type, int flags) {
    const fake_memory::spare spare;
    journal::add("nlmsg_alloc_simple(" + number(type) + ", " + number(flags) + ")");
    if (state().failing_message_allocs > 0) {
        --state().failing_message_allocs;
        return nullptr;
    }
    auto *message = new nl_msg{{type, flags, {}}};
    ++state().messages_allocated;
    inside().messages.insert(message);
    return message;
}

void nlmsg_free(nl_msg *message) {
    const fake_memory::spare spare;
    journal::add("nlmsg_free()");
    if (message == nullptr) {
        return; // as the library does
    }
    expect_alive(message, "nlmsg_free");
    ++state().messages_freed;
    if (inside().messages.erase(message) == 1) {
        delete message;
    }
}

int nlmsg_append(nl_msg *message, void *data, size_t size, int pad) {
    const fake_memory::spare spare;
    journal::add("nlmsg_append(" + hex(bytes_of(data, size)) + ", " + number(pad) + ")");
    expect_alive(message, "nlmsg_append");
    const int result = answer(state().append, 0);
    if (result == 0) {
        append_padded(message->content.body, data, size, static_cast<std::size_t>(pad));
    }
    return result;
}

int nla_put(nl_msg *message, int type, int size, const void *data) {
    const fake_memory::spare spare;
    const auto length = static_cast<std::size_t>(size);
    journal::add("nla_put(" + number(type) + ", " + hex(bytes_of(data, length)) + ")");
    expect_alive(message, "nla_put");
    const int result = answer(state().put, 0);
    if (result >= 0) {
        const nlattr header{static_cast<std::uint16_t>(sizeof(nlattr) + length),
                            static_cast<std::uint16_t>(type)};
        append_padded(message->content.body, &header, sizeof header, NLMSG_ALIGNTO);
        append_padded(message->content.body, data, length, NLMSG_ALIGNTO);
    }
    return result;
}

int nl_send_auto_complete(nl_sock *socket, nl_msg *message) {
    const fake_memory::spare spare;
    journal::add("nl_send_auto_complete(" + number(message->content.type) + ")");
    expect_alive(socket, "nl_send_auto_complete");
    expect_alive(message, "nl_send_auto_complete");
    const int result = answer(state().send_auto_complete,
                              static_cast<int>(NLMSG_HDRLEN + message->content.body.size()));
    if (result > 0) {
        state().changes.push_back(message->content);
    }
    return result;
}

} // extern "C"

namespace fake_libnl {

in6_addr addr(const std::string &text) {
    in6_addr bytes{};
    EXPECT_EQ(inet_pton(AF_INET6, text.c_str(), &bytes), 1) << text;
    return bytes;
}

datagram_t &datagram_t::message(int type, const void *family_header, std::size_t size, int flags) {
    message_at = content.size();
    attribute_at = 0;
    nlmsghdr header{};
    header.nlmsg_type = static_cast<std::uint16_t>(type);
    header.nlmsg_flags = static_cast<std::uint16_t>(flags);
    append_padded(content, &header, sizeof header, NLMSG_ALIGNTO);
    append_padded(content, family_header, size, NLMSG_ALIGNTO);
    grow_message();
    return *this;
}

void datagram_t::grow_message() {
    set_message_length(static_cast<std::uint32_t>(content.size() - message_at));
}

datagram_t &datagram_t::attribute(int type, const void *payload, std::size_t size) {
    attribute_at = content.size();
    const rtattr header{static_cast<unsigned short>(RTA_LENGTH(size)),
                        static_cast<unsigned short>(type)};
    append_padded(content, &header, sizeof header, RTA_ALIGNTO);
    append_padded(content, payload, size, RTA_ALIGNTO);
    grow_message();
    return *this;
}

datagram_t &datagram_t::attribute(int type, const std::string &text) {
    return attribute(type, text.c_str(), text.size() + 1);
}

datagram_t &datagram_t::attribute(int type, std::int32_t value) {
    return attribute(type, &value, sizeof value);
}

datagram_t &datagram_t::attribute(int type, const in6_addr &address) {
    return attribute(type, &address, sizeof address);
}

datagram_t &datagram_t::link(int type, int ifindex, const std::string &name,
                             std::initializer_list<unsigned char> hwaddr, int flags) {
    ifinfomsg header{};
    header.ifi_family = AF_INET6;
    header.ifi_type = ARPHRD_ETHER;
    header.ifi_index = ifindex;
    message(type, &header, sizeof header, flags);
    if (!name.empty()) {
        attribute(IFLA_IFNAME, name);
    }
    if (hwaddr.size() > 0) {
        attribute(IFLA_ADDRESS, hwaddr.begin(), hwaddr.size());
    }
    return *this;
}

datagram_t &datagram_t::address(int type, int ifindex, const std::string &text, int prefix_len,
                                int scope, int flags) {
    ifaddrmsg header{};
    header.ifa_family = AF_INET6;
    header.ifa_prefixlen = static_cast<std::uint8_t>(prefix_len);
    header.ifa_scope = static_cast<std::uint8_t>(scope);
    header.ifa_index = static_cast<std::uint32_t>(ifindex);
    message(type, &header, sizeof header, flags);
    if (!text.empty()) {
        attribute(IFA_ADDRESS, addr(text));
    }
    return *this;
}

datagram_t &datagram_t::route(int type, int ifindex, const std::string &gateway, int protocol,
                              const std::string &dst, int dst_len, int flags) {
    rtmsg header{};
    header.rtm_family = AF_INET6;
    header.rtm_dst_len = static_cast<unsigned char>(dst_len);
    header.rtm_table = RT_TABLE_MAIN;
    header.rtm_protocol = static_cast<unsigned char>(protocol);
    header.rtm_type = RTN_UNICAST;
    message(type, &header, sizeof header, flags);
    if (!dst.empty()) {
        attribute(RTA_DST, addr(dst));
    }
    if (!gateway.empty()) {
        attribute(RTA_GATEWAY, addr(gateway));
    }
    if (ifindex != -1) {
        attribute(RTA_OIF, ifindex);
    }
    return *this;
}

datagram_t &datagram_t::done(int result, int flags) {
    return message(NLMSG_DONE, &result, sizeof result, flags);
}

datagram_t &datagram_t::error(int error, const message_t &request) {
    message(NLMSG_ERROR, &error, sizeof error);
    nlmsghdr header{};
    header.nlmsg_len = static_cast<std::uint32_t>(NLMSG_HDRLEN + request.body.size());
    header.nlmsg_type = static_cast<std::uint16_t>(request.type);
    // Completes a request like the library.
    header.nlmsg_flags = static_cast<std::uint16_t>(request.flags | NLM_F_REQUEST | NLM_F_ACK);
    append_padded(content, &header, sizeof header, NLMSG_ALIGNTO);
    if (error != 0) {
        append_padded(content, request.body.data(), request.body.size(), NLMSG_ALIGNTO);
    }
    grow_message();
    return *this;
}

datagram_t &datagram_t::set_message_length(std::uint32_t length) {
    std::memcpy(content.data() + message_at, &length, sizeof length);
    return *this;
}

datagram_t &datagram_t::set_attribute_length(std::uint16_t length) {
    std::memcpy(content.data() + attribute_at, &length, sizeof length);
    return *this;
}

datagram_t &datagram_t::cut(std::size_t size) {
    content.resize(size);
    return *this;
}

} // namespace fake_libnl
