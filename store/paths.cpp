#include "store/paths.h"

#include <cstdlib>

#include "sync/model.h"

namespace {

struct type_text_t {
    address_type_t type;
    const char *text;
};

constexpr type_text_t type_texts[] = {
    {type_link_local, "Link-Local"}, {type_automatic, "Automatic"}, {type_static, "Static"}};

} // namespace

namespace paths {

const char *const interfaces = "/Software/System Settings/Network/Interface";
const char *const ipv6_part = "/IPv6";
const char *const gateway_part = "/Default Gateway";
const char *const addresses_part = "/Addresses";
const char *const address_part = "/Address";
const char *const type_part = "/Type";
const char *const value_part = "/Value";

tk_string ipv6(const tk_string &interface_name) {
    return tk_string(interfaces) + "/" + interface_name + ipv6_part;
}

tk_string ipv6(std::int32_t interface_number) {
    return ipv6(std::to_string(interface_number));
}

tk_string gateway(const tk_string &ipv6_path) {
    return ipv6_path + gateway_part;
}

tk_string addresses(const tk_string &ipv6_path) {
    return ipv6_path + addresses_part;
}

tk_string address(const tk_string &addresses_path, const tk_string &name) {
    return addresses_path + "/" + name;
}

tk_string value(const tk_string &node_path) {
    return node_path + value_part;
}

tk_string address_value(const tk_string &address_path) {
    return value(address_path + address_part);
}

tk_string type_value(const tk_string &address_path) {
    return value(address_path + type_part);
}

} // namespace paths

tk_string type_to_str(std::int32_t type) {
    for (const type_text_t &known : type_texts) {
        if (known.type == type) {
            return known.text;
        }
    }
    return tk_string();
}

std::int32_t str_to_type(const tk_string &text) {
    for (const type_text_t &known : type_texts) {
        if (text == known.text) {
            return known.type;
        }
    }
    return type_unset;
}

long positive_number(const tk_string &text) {
    char *end = nullptr;
    const long number = std::strtol(text.c_str(), &end, 10);
    return end == text.c_str() + text.size() && number > 0 ? number : 0;
}
