// A second version of the parser of address texts.
#pragma once

#include <string>

#include <netinet/in.h>

namespace reference {

struct address_t {
    std::string fault; // the exception's text; empty if the text is valid
    in6_addr addr{};
    int prefix_len = 0;
};

address_t address(const std::string &text, bool prefix_required);

std::string bytes_of(const in6_addr &addr);

} // namespace reference
