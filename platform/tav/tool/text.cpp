#include "tool/text.h"

#include <unistd.h>

#include <array>
#include <cstdint>
#include <iostream>
#include <utility>

namespace tav::tool {

namespace {

constexpr std::array<std::pair<element_type_t, const char *>, 5> types{{
    {element_type_node, "node"},
    {element_type_boolean, "boolean"},
    {element_type_integer, "integer"},
    {element_type_real, "real"},
    {element_type_string, "string"},
}};

constexpr std::array<const char *, 20> statuses{"not looked at",
                                                "ok",
                                                "absent",
                                                "wrong kind",
                                                "bad path",
                                                "refused",
                                                "too large",
                                                "bad value",
                                                "stale",
                                                "not done",
                                                "could not store",
                                                "no right to do this",
                                                "path too long",
                                                "path too deep",
                                                "name too long",
                                                "value too long",
                                                "too many children of one node",
                                                "too many elements in the store",
                                                "too many registrations",
                                                "too many connections"};

constexpr std::string_view hex_digits = "0123456789abcdef";

std::string to_hex(std::string_view bytes) {
    std::string hex;
    for (const char byte : bytes) {
        const auto value = static_cast<unsigned char>(byte);
        hex.push_back(hex_digits[value >> 4U]);
        hex.push_back(hex_digits[value & 0xfU]);
    }
    return hex;
}

std::optional<std::string> from_hex(const std::string &hex) {
    if (hex.size() % 2 != 0) {
        return std::nullopt;
    }
    std::string bytes;
    for (std::size_t i = 0; i < hex.size(); i += 2) {
        const std::size_t high = hex_digits.find(hex[i]);
        const std::size_t low = hex_digits.find(hex[i + 1]);
        if (high == std::string_view::npos || low == std::string_view::npos) {
            return std::nullopt;
        }
        bytes.push_back(static_cast<char>(high * 16 + low));
    }
    return bytes;
}

bool is_utf8(const std::string &text) {
    try {
        static_cast<void>(Json(text).dump());
        return true;
    } catch (const Json::type_error &) {
        return false;
    }
}

} // namespace

const char *type_name(element_type_t type) {
    for (const auto &[known, name] : types) {
        if (known == type) {
            return name;
        }
    }
    return "unknown";
}

std::optional<element_type_t> leaf_type(std::string_view name) {
    for (const auto &[type, known] : types) {
        if (type != element_type_node && known == name) {
            return type;
        }
    }
    return std::nullopt;
}

std::string status_name(api_status_t status) {
    const auto number = static_cast<std::size_t>(status);
    return number < statuses.size() ? statuses.at(number) : "status " + std::to_string(number);
}

std::string escaped(std::string_view text) {
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        // U+0080 to U+009F are control characters, too.
        const bool second_set =
            byte == 0xc2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) < 0xa0;
        if (byte == '\n') {
            result += "\\n";
        } else if (byte == '\t') {
            result += "\\t";
        } else if (byte == '\\') {
            result += "\\\\";
        } else if (byte < 0x20 || byte == 0x7f) {
            result += "\\x" + to_hex(text.substr(i, 1));
        } else if (second_set) {
            const std::string hex = to_hex(text.substr(i, 2));
            result += "\\x" + hex.substr(0, 2) + "\\x" + hex.substr(2);
            ++i;
        } else {
            result.push_back(text[i]);
        }
    }
    return result;
}

void add_text(Json &object, const std::string &key, const std::string &text) {
    if (is_utf8(text)) {
        object[key] = text;
    } else {
        object[key + "_hex"] = to_hex(text);
    }
}

std::optional<std::string> find_text(const Json &object, const std::string &key) {
    const auto plain = object.find(key);
    if (plain != object.end()) {
        return plain->is_string() ? std::optional<std::string>(plain->get<std::string>())
                                  : std::nullopt;
    }
    const auto hex = object.find(key + "_hex");
    if (hex == object.end() || !hex->is_string()) {
        return std::nullopt;
    }
    return from_hex(hex->get<std::string>());
}

void complain(std::string_view path, api_status_t status) {
    std::cerr << "tav: " << escaped(path) << ": " << status_name(status) << '\n';
}

bool on_terminal() {
    return ::isatty(STDOUT_FILENO) == 1;
}

} // namespace tav::tool
