// libnl for C++: objects that free themselves, and netlink messages that a test writes itself.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <netlink/addr.h>
#include <netlink/msg.h>
#include <netlink/object.h>
#include <netlink/socket.h>
#include <sys/socket.h>

namespace kt {

template <auto release>
struct released_by {
    template <typename T>
    void operator()(T *object) const {
        release(object);
    }
};
using address_ptr = std::unique_ptr<nl_addr, released_by<nl_addr_put>>;
using object_ptr = std::unique_ptr<nl_object, released_by<nl_object_put>>;
using socket_ptr = std::unique_ptr<nl_sock, released_by<nl_socket_free>>;

// Throws std::runtime_error for a negative status of libnl.
inline void check(int status, const std::string &what) {
    if (status < 0) {
        throw std::runtime_error(what + ": " + nl_geterror(status));
    }
}

// "2001:db8::5/64", an address alone, or "00:1a:2b:3c:4d:5e" (AF_LLC). Throws std::runtime_error.
inline address_ptr parse_address(const std::string &text, int family = AF_INET6) {
    nl_addr *address = nullptr;
    check(nl_addr_parse(text.c_str(), family, &address), text);
    return address_ptr(address);
}

// One netlink message: a header of type T after the netlink header, then attributes. Copies share
// the message.
class Message {
public:
    explicit Message(int type, int flags = 0)
        : message(nlmsg_alloc_simple(type, flags), nlmsg_free) {}

    template <typename T>
    Message &append(T header) {
        check(nlmsg_append(message.get(), &header, sizeof header, NLMSG_ALIGNTO), "a header");
        return *this;
    }
    Message &attribute(int type, const void *data, std::size_t size) {
        check(nla_put(message.get(), type, static_cast<int>(size), data), "an attribute");
        return *this;
    }
    Message &attribute(int type, const std::string &text) { // with its terminator
        return attribute(type, text.c_str(), text.size() + 1);
    }

    nl_msg *get() const { return message.get(); }
    std::vector<unsigned char> bytes() const {
        const nlmsghdr *header = nlmsg_hdr(message.get());
        const auto *start = reinterpret_cast<const unsigned char *>(header);
        return {start, start + header->nlmsg_len};
    }

private:
    std::shared_ptr<nl_msg> message;
};

} // namespace kt
