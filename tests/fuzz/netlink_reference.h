// Second, plain versions of the netlink decoders that return texts.
#pragma once

#include <string>

namespace reference {

struct decoded_t {
    std::string records; // one line for each, as decoders.cpp describes them
    std::string log;     // see log_sink::joined
};

decoded_t links(const std::string &datagram);
decoded_t addrs(const std::string &datagram);
decoded_t routes(const std::string &datagram);

// The type of the first message.
int type(const std::string &datagram);
bool ends_after_first(const std::string &datagram);
bool incomplete(const std::string &datagram);
// "none", or error, request and the two records of the refused request.
std::string refusal(const std::string &datagram);

} // namespace reference
