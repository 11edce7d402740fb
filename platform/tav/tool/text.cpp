#include "tool/text.h"

#include <array>
#include <utility>

#include <nlohmann/json.hpp>

#include "in_order.h"

namespace tav::tool {

namespace {

constexpr std::array<std::pair<element_type_t, const char *>, 5> types{{
    {element_type_node, "node"},
    {element_type_boolean, "boolean"},
    {element_type_integer, "integer"},
    {element_type_real, "real"},
    {element_type_string, "string"},
}};

using StatusName = std::pair<api_status_t, const char *>;
constexpr std::array<StatusName, api_status_too_much_pending + 1> statuses{{
    {api_status_none, "not processed"},
    {api_status_ok, "ok"},
    {api_status_absent, "absent"},
    {api_status_wrong_kind, "wrong kind"},
    {api_status_bad_path, "bad path"},
    {api_status_refused, "refused"},
    {api_status_too_large, "too large"},
    {api_status_bad_value, "bad value"},
    {api_status_stale, "stale"},
    {api_status_not_done, "not done"},
    {api_status_failed, "could not store"},
    {api_status_denied, "permission denied"},
    {api_status_path_too_long, "path too long"},
    {api_status_path_too_deep, "path too deep"},
    {api_status_name_too_long, "name too long"},
    {api_status_value_too_long, "value too long"},
    {api_status_too_many_children, "too many children of one node"},
    {api_status_too_many_elements, "too many elements in the store"},
    {api_status_too_many_registrations, "too many registrations"},
    {api_status_too_many_connections, "too many connections"},
    {api_status_not_empty, "not empty"},
    {api_status_too_many_bytes, "too many bytes in the store"},
    {api_status_changed, "changed"},
    {api_status_pending, "another change is waiting for confirmation"},
    {api_status_too_much_pending, "too many changes are waiting for confirmation"},
}};
static_assert(in_order(statuses, &StatusName::first));

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
    return number < statuses.size() ? statuses.at(number).second
                                    : "status " + std::to_string(status);
}

void add_text(Json &object, const std::string &key, const std::string &text) {
    if (is_utf8(text)) {
        object[key] = text;
    } else {
        object[key + "_hex"] = terminal::to_hex(text);
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
    return terminal::from_hex(hex->get<std::string>());
}

} // namespace tav::tool
