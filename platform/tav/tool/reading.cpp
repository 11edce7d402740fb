// get, ls and tree.
#include <algorithm>
#include <iostream>

#include "client/admin.h"
#include "tool/text.h"
#include "tool/tool.h"

namespace tav::tool {

namespace {

Json value_json(const std::string &path, api_status_t status, const toolkit::CElement &value) {
    Json entry = Json::object();
    add_text(entry, "path", path);
    entry["status"] = status_name(status);
    if (status == api_status_ok) {
        entry["type"] = type_name(value.type());
        add_text(entry, "value", value.to_string());
        entry["time"] = value.time();
    }
    return entry;
}

} // namespace

int get(Client &client, const Options &options) {
    std::vector<api_status_t> statuses;
    std::vector<toolkit::CElement> values;
    std::vector<element_property_t> properties;
    if (client.tav.get_leaves(options.paths, statuses, values, properties) != 0) {
        return exit_unreachable;
    }
    int result = exit_done;
    Json all = Json::array();
    for (std::size_t i = 0; i < options.paths.size(); ++i) {
        if (statuses[i] != api_status_ok) {
            complain(options.paths[i], statuses[i]);
            result = exit_refused;
        }
        if (options.json) {
            all.push_back(value_json(options.paths[i], statuses[i], values[i]));
        } else if (statuses[i] == api_status_ok) {
            // A script gets the value as it is; a terminal is protected from it.
            const std::string &text = values[i].to_string();
            std::cout << (on_terminal() ? escaped(text) : text) << '\n';
        }
    }
    if (options.json) {
        std::cout << all.dump(2) << '\n';
    }
    return result;
}

int list(Client &client, const Options &options) {
    const std::string &path = options.paths.front();
    api_status_t status = api_status_none;
    std::vector<toolkit::child_t> children;
    if (client.tav.list_node(path, status, children) != 0) {
        return exit_unreachable;
    }
    if (status != api_status_ok) {
        complain(path, status);
        return exit_refused;
    }
    Json all = Json::array();
    for (const auto &[name, kind] : children) {
        if (options.json) {
            Json entry = Json::object();
            add_text(entry, "name", name);
            entry["type"] = type_name(kind.first);
            all.push_back(std::move(entry));
            continue;
        }
        if (options.long_listing) {
            constexpr std::size_t column = 8;
            std::string type = type_name(kind.first);
            type.resize(std::max(type.size(), column), ' ');
            std::cout << type;
        }
        std::cout << escaped(name) << '\n';
    }
    if (options.json) {
        std::cout << all.dump(2) << '\n';
    }
    return exit_done;
}

int tree(Client &client, const Options &options) {
    const std::string &start = options.paths.front();
    api_status_t status = api_status_none;
    std::vector<DumpElement> elements;
    if (tav::dump(client.handle(), start, status, elements) != 0) {
        return exit_unreachable;
    }
    if (status != api_status_ok) {
        complain(start, status);
        return exit_refused;
    }
    Json all = Json::array();
    const auto depth = [](const std::string &path) {
        return path == "/" ? 0 : std::count(path.begin(), path.end(), '/');
    };
    for (const DumpElement &element : elements) {
        const bool node = element.value.type == element_type_node;
        if (options.json) {
            Json entry = Json::object();
            add_text(entry, "path", element.path);
            entry["type"] = type_name(element.value.type);
            if (!node) {
                add_text(entry, "value", element.value.text);
                entry["time"] = element.value.time;
            }
            all.push_back(std::move(entry));
            continue;
        }
        const bool top = &element == &elements.front();
        const auto indent = static_cast<std::size_t>(depth(element.path) - depth(start)) * 2;
        const std::string name =
            top ? element.path : element.path.substr(element.path.rfind('/') + 1);
        std::cout << std::string(indent, ' ') << escaped(name);
        if (!node) {
            std::cout << " = " << escaped(element.value.text);
            if (element.value.type != element_type_string) {
                std::cout << " (" << type_name(element.value.type) << ')';
            }
        }
        std::cout << '\n';
    }
    if (options.json) {
        std::cout << all.dump(2) << '\n';
    }
    return exit_done;
}

} // namespace tav::tool
