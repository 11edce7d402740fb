// Netlink messages: building those that a test sends, and parsing the kernel's answers.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>

namespace kt {

// Builds one netlink message: a header of type T after the netlink header, then attributes.
class Message {
public:
    Message(std::uint16_t type, std::uint16_t flags);

    template <typename T>
    Message &append(const T &header) {
        append_bytes(&header, sizeof header);
        return *this;
    }
    Message &attribute(std::uint16_t type, const void *data, std::size_t size);
    Message &attribute(std::uint16_t type, const std::string &text); // with its terminator
    Message &attribute(std::uint16_t type, std::uint32_t value);
    // An attribute that contains attributes: everything added until the matching end.
    std::size_t begin(std::uint16_t type);
    void end(std::size_t nest);
    void append_bytes(const void *data, std::size_t size);

    // With the length filled in.
    std::vector<unsigned char> bytes() const;

private:
    nlmsghdr head{};
    std::vector<unsigned char> content; // what follows the header
};

// Copies a T from any address.
template <typename T>
T read_as(const unsigned char *bytes) {
    T value{};
    std::memcpy(&value, bytes, sizeof value);
    return value;
}

// Calls visit(type, payload, size) for the attributes between the two offsets.
template <typename Visit>
void for_attributes(const unsigned char *bytes, std::size_t start, std::size_t end,
                    const Visit &visit) {
    while (start + sizeof(rtattr) <= end) {
        const auto attribute = read_as<rtattr>(bytes + start);
        if (attribute.rta_len < sizeof(rtattr) || start + attribute.rta_len > end) {
            return;
        }
        visit(attribute.rta_type, bytes + start + sizeof(rtattr),
              attribute.rta_len - sizeof(rtattr));
        start += RTA_ALIGN(attribute.rta_len);
    }
}

struct prefix_t {
    in6_addr address{};
    std::uint8_t length = 128;
};

// "2001:db8::5/64", or an address alone. Throws std::runtime_error.
prefix_t parse_prefix(const std::string &text);
// 16 bytes as text.
std::string address_text(const unsigned char *bytes);
// "00:1a:2b:3c:4d:5e"
std::string octets_text(const unsigned char *data, std::size_t size);

} // namespace kt
