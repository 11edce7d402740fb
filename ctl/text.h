// Texts for people.
#pragma once

#include <cstdint>
#include <string>

#include "ctl/kernel_view.h"
#include "terminal/screen.h"

namespace ctl {

// Stored text and the names of links must not control a terminal.
using tav::terminal::shown;
using tav::terminal::shown_word;

std::string address_text(const in6_addr &address);
std::string prefix_text(const CAddress &address); // with "/" and the length

// "static", "ra", "boot", ...; the number for one without a name.
std::string protocol_name(std::uint8_t protocol);
// "global", "link", ...; the number for one without a name.
std::string scope_name(std::uint8_t scope);
// "tentative", "dadfailed", "deprecated", ... and the life times, for people; empty when there is
// nothing to say.
std::string state_text(const kernel_address_t &address);
// The flags alone, by their names.
std::string flags_text(std::uint32_t flags);
// "2d3h", "59m", "12s"; "forever".
std::string duration_text(std::uint32_t seconds);

} // namespace ctl
