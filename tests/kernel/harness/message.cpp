#include "harness/message.h"

#include <cstdio>
#include <stdexcept>

#include <arpa/inet.h>

namespace kt {

Message::Message(std::uint16_t type, std::uint16_t flags) {
    head.nlmsg_type = type;
    head.nlmsg_flags = flags;
}

void Message::append_bytes(const void *data, std::size_t size) {
    const auto *bytes = static_cast<const unsigned char *>(data);
    content.insert(content.end(), bytes, bytes + size);
    content.resize(NLMSG_ALIGN(content.size()));
}

Message &Message::attribute(std::uint16_t type, const void *data, std::size_t size) {
    rtattr header{};
    header.rta_type = type;
    header.rta_len = static_cast<std::uint16_t>(sizeof header + size);
    append_bytes(&header, sizeof header);
    append_bytes(data, size);
    return *this;
}

Message &Message::attribute(std::uint16_t type, const std::string &text) {
    return attribute(type, text.c_str(), text.size() + 1);
}

Message &Message::attribute(std::uint16_t type, std::uint32_t value) {
    return attribute(type, &value, sizeof value);
}

std::size_t Message::begin(std::uint16_t type) {
    const std::size_t at = content.size();
    attribute(type, nullptr, 0);
    return at;
}

void Message::end(std::size_t nest) {
    const auto length = static_cast<std::uint16_t>(content.size() - nest);
    std::memcpy(content.data() + nest, &length, sizeof length);
}

std::vector<unsigned char> Message::bytes() const {
    auto filled_in = head;
    filled_in.nlmsg_len = static_cast<std::uint32_t>(sizeof filled_in + content.size());
    std::vector<unsigned char> result(filled_in.nlmsg_len);
    std::memcpy(result.data(), &filled_in, sizeof filled_in);
    std::copy(content.begin(), content.end(), result.begin() + sizeof filled_in);
    return result;
}

prefix_t parse_prefix(const std::string &text) {
    prefix_t prefix;
    const auto slash = text.find('/');
    if (slash != std::string::npos) {
        prefix.length = static_cast<std::uint8_t>(std::stoul(text.substr(slash + 1)));
    }
    if (inet_pton(AF_INET6, text.substr(0, slash).c_str(), &prefix.address) != 1) {
        throw std::runtime_error("not an IPv6 address: " + text);
    }
    return prefix;
}

std::string address_text(const unsigned char *bytes) {
    char text[INET6_ADDRSTRLEN] = {};
    return inet_ntop(AF_INET6, bytes, static_cast<char *>(text), sizeof text) != nullptr
               ? static_cast<const char *>(text)
               : "?";
}

std::string octets_text(const unsigned char *data, std::size_t size) {
    std::string text;
    for (std::size_t i = 0; i < size; ++i) {
        char octet[8];
        std::snprintf(static_cast<char *>(octet), sizeof octet, "%s%02x", i == 0 ? "" : ":",
                      static_cast<unsigned int>(data[i]));
        text += static_cast<const char *>(octet);
    }
    return text;
}

} // namespace kt
