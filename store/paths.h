// Where the IPv6 settings are in the store, and the texts of its leaves. All paths are built here;
// no other file spells a part of one.
//
//   /Software/System Settings/Network/Interface/<N>/IPv6/Default Gateway/Value
//   /Software/System Settings/Network/Interface/<N>/IPv6/Addresses/<name>/Address/Value
//   /Software/System Settings/Network/Interface/<N>/IPv6/Addresses/<name>/Type/Value
#pragma once

#include <cstdint>

#include <tav/toolkit.h>

namespace paths {

// The node whose children are the interfaces; no trailing "/".
extern const char *const interfaces;

// The parts of the paths below it, each with its leading "/"; a leaf's last part is "/Value".
extern const char *const ipv6_part;
extern const char *const gateway_part;
extern const char *const addresses_part;
extern const char *const address_part;
extern const char *const type_part;
extern const char *const value_part;

// The IPv6 node of an interface, by the name of its node as listed, or by its number.
tk_string ipv6(const tk_string &interface_name);
tk_string ipv6(std::int32_t interface_number);

// Nodes below an IPv6 node.
tk_string gateway(const tk_string &ipv6_path);
tk_string addresses(const tk_string &ipv6_path);
tk_string address(const tk_string &addresses_path, const tk_string &name);

// Leaves: the gateway's, and an address node's two.
tk_string value(const tk_string &node_path);
tk_string address_value(const tk_string &address_path);
tk_string type_value(const tk_string &address_path);

} // namespace paths

// "Link-Local", "Automatic", "Static", or an empty text for any other type.
tk_string type_to_str(std::int32_t type);
// The reverse; type_unset for any other text. The comparison is exact.
std::int32_t str_to_type(const tk_string &text);

// Converts a decimal number, as strtol(3) does. Returns 0 if anything follows the number, or if it
// is not positive.
long positive_number(const tk_string &text);
