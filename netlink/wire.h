// Reading netlink messages (netlink(7), rtnetlink(7)) out of a received datagram without leaving
// it. Lengths in the messages are not trusted: bytes beyond those that were received read as zero.
// Nothing is cast in place, so a datagram may start at any address.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <linux/netlink.h>
#include <linux/rtnetlink.h>

namespace wire {

struct datagram_t {
    // A negative size counts as 0.
    datagram_t(const unsigned char *buffer, int size)
        : bytes(buffer), length(size > 0 ? static_cast<std::size_t>(size) : 0) {}

    const unsigned char *bytes; // borrowed
    std::size_t length;         // number of bytes received
};

// A received datagram that frees its memory. CNetlink::recv and nl_recv fill it.
struct owned_datagram_t {
    owned_datagram_t() = default;
    owned_datagram_t(const owned_datagram_t &) = delete;
    owned_datagram_t &operator=(const owned_datagram_t &) = delete;
    ~owned_datagram_t() { std::free(bytes); }
    operator datagram_t() const { return {bytes, length}; }

    unsigned char *bytes = nullptr;
    int length = 0;
};

// Copies sizeof(T) bytes from `offset`; bytes beyond the datagram are zero.
template <typename T>
T read_at(const datagram_t &datagram, std::size_t offset) {
    T value{};
    if (offset < datagram.length) {
        const std::size_t there = datagram.length - offset;
        std::memcpy(&value, datagram.bytes + offset, there < sizeof value ? there : sizeof value);
    }
    return value;
}

// Walks the messages of a datagram. The walk ends after the message that reaches the end of the
// datagram, or earlier after one whose aligned length, as a signed 32-bit number, is 0 or less.
class message_walk {
public:
    explicit message_walk(const datagram_t &received) : datagram(received) {
        if (!at_end()) {
            message = read_at<nlmsghdr>(datagram, position);
        }
    }

    bool at_end() const { return position >= datagram.length; }
    const nlmsghdr &header() const { return message; }

    void next() {
        const auto step = static_cast<std::int32_t>(NLMSG_ALIGN(message.nlmsg_len));
        position = step > 0 ? position + static_cast<std::size_t>(step) : datagram.length;
        if (!at_end()) {
            message = read_at<nlmsghdr>(datagram, position);
        }
    }

    // Reads what follows the message's netlink header, `offset` bytes after it.
    template <typename T>
    T payload(std::size_t offset = 0) const {
        return read_at<T>(datagram, position + NLMSG_HDRLEN + offset);
    }

    // Calls visit(type, datagram, offset of the payload) for each attribute after a family header
    // of `family_size` bytes. The walk ends at the first attribute that is shorter than 4 bytes or
    // longer than the rest of the message. The message's own length decides, even if it reaches
    // beyond the datagram: the bytes there read as zero.
    template <typename Visit>
    void for_each_attribute(std::size_t family_size, const Visit &visit) const {
        const std::size_t start = NLMSG_HDRLEN + family_size;
        std::int64_t left = std::int64_t{message.nlmsg_len} - static_cast<std::int64_t>(start);
        std::size_t at = position + start;
        while (left >= static_cast<std::int64_t>(sizeof(rtattr))) {
            const auto attribute = read_at<rtattr>(datagram, at);
            if (attribute.rta_len < sizeof(rtattr) || attribute.rta_len > left) {
                return;
            }
            visit(attribute.rta_type, datagram, at + sizeof(rtattr));
            left -= RTA_ALIGN(attribute.rta_len);
            at += RTA_ALIGN(attribute.rta_len);
        }
    }

private:
    datagram_t datagram;
    std::size_t position = 0;
    nlmsghdr message{};
};

} // namespace wire
