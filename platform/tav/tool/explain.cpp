#include "tool/explain.h"

#include "tool/pending.h"
#include "tool/screen.h"

namespace tav::tool {

namespace {

std::string command_on(const char *command, const std::string &path) {
    return std::string("tav ") + command + " " + terminal::shown_word(path);
}

api_status_t node_status(Client &client, const std::string &path) {
    api_status_t status = api_status_none;
    std::vector<toolkit::child_t> children;
    // A lost connection leaves api_status_none; then there is no advice.
    client.tav.list_node(path, status, children);
    return status;
}

std::string parent_of(const std::string &path) {
    const std::size_t slash = path.rfind('/');
    // Without a slash it is no path, but the service may call it absent.
    return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
}

// The nearest element above `path` that exists, and whether it is a node (api_status_ok) or a leaf
// (api_status_wrong_kind).
std::pair<std::string, api_status_t> nearest(Client &client, std::string path) {
    api_status_t status = api_status_absent;
    while (path != "/" && status == api_status_absent) {
        path = parent_of(path);
        status = node_status(client, path);
    }
    return {path, status};
}

std::string advice_for_absent(Client &client, const std::string &path) {
    const auto [found, status] = nearest(client, path);
    if (status == api_status_ok) {
        return shown(found) + " exists; to list it: " + command_on("ls", found);
    }
    return status == api_status_wrong_kind
               ? shown(found) + " is a leaf, and nothing is below a leaf"
               : "";
}

std::string advice_for_kind(const std::string &path, Wanted wanted) {
    if (wanted == Wanted::leaf) {
        return "it is a node; to read everything below it: " + command_on("get -r", path);
    }
    return "it is a leaf; to read it: " + command_on("get", path);
}

// Why a write found the wrong kind of element.
std::string advice_for_clash(Client &client, const std::string &path) {
    switch (node_status(client, path)) {
    case api_status_ok:
        return "it is a node, and a node has no value; to list it: " + command_on("ls", path);
    case api_status_wrong_kind:
        return "it is a leaf, not a node";
    default:
        break;
    }
    const auto [found, status] = nearest(client, path);
    return status == api_status_wrong_kind
               ? shown(found) + " is a leaf, and nothing can be below a leaf"
               : "an element is of the other kind (leaf or node)";
}

std::string advice_for_value(const Value &value) {
    const char *const article = value.type == element_type_integer ? "an " : "a ";
    const std::string what =
        "'" + shown(value.text) + "' is not " + article + type_name(value.type);
    switch (value.type) {
    case element_type_boolean:
        return what + "; write true or false";
    case element_type_integer:
        return what + "; write a whole number of at most 64 bits, like -5";
    case element_type_real:
        return what + "; write a decimal number, like -1.5 or 2e3";
    default:
        return "a value cannot hold the byte 0";
    }
}

// Advice that does not depend on the command.
std::string common_advice(api_status_t status) {
    switch (status) {
    case api_status_bad_path:
        return "a path is / or /name/name..., without empty names";
    case api_status_denied:
        return "only root, the service's own user and members of its write group may do this";
    case api_status_failed:
        return "nothing was changed; the service's log says why";
    case api_status_too_large:
    case api_status_path_too_long:
    case api_status_path_too_deep:
    case api_status_name_too_long:
    case api_status_value_too_long:
    case api_status_too_many_children:
    case api_status_too_many_elements:
    case api_status_too_many_registrations:
        return "'tav status' lists the limits";
    default:
        return "";
    }
}

void complain_about(const std::string &place, const std::string &path, api_status_t status,
                    const std::string &advice) {
    complain(place + shown(path) + ": " + status_name(status) +
             (advice.empty() ? "" : "; " + advice));
}

} // namespace

void complain_reading(Client &client, const std::string &path, api_status_t status, Wanted wanted) {
    std::string advice = common_advice(status);
    if (status == api_status_absent) {
        advice = advice_for_absent(client, path);
    } else if (status == api_status_wrong_kind) {
        advice = advice_for_kind(path, wanted);
    } else if (status == api_status_refused) {
        advice = "the store changes faster than it can be read; try again";
    }
    complain_about("", path, status, advice);
}

namespace {

// What there is where a condition wanted something else.
std::string advice_for_changed(Client &client, const std::string &path) {
    api_status_t status = api_status_none;
    toolkit::CElement value;
    element_property_t property = element_property_none;
    client.tav.get_leaf(path, status, value, property);
    switch (status) {
    case api_status_ok:
        return "it is now " + element_line(path, value.type(), value.to_string());
    case api_status_absent:
        return "there is no such element";
    case api_status_wrong_kind:
        return "it is a node";
    default:
        return "";
    }
}

} // namespace

void complain_writing(Client &client, const Item &item, api_status_t status,
                      const std::string &place) {
    std::string advice = common_advice(status);
    if (status == api_status_absent) {
        advice = advice_for_absent(client, item.path);
    } else if (status == api_status_wrong_kind) {
        advice = advice_for_clash(client, item.path);
    } else if (status == api_status_bad_value) {
        advice = advice_for_value(item.value);
    } else if (status == api_status_refused) {
        advice = "the root cannot be removed; to list what is below it: tav ls /";
    } else if (status == api_status_changed) {
        advice = advice_for_changed(client, item.path);
    } else if (status == api_status_pending) {
        advice = advice_for_pending(client, item.path);
    } else if (status == api_status_not_empty) {
        advice = "to remove it with everything below it: " + command_on("rm -r", item.path);
    }
    complain_about(place, item.path, status, advice);
}

} // namespace tav::tool
