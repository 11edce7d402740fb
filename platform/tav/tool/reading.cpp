// get, ls and tree.
#include <algorithm>
#include <iostream>

#include <nlohmann/json.hpp>

#include "client/admin.h"
#include "tool/dump_format.h"
#include "tool/explain.h"
#include "tool/screen.h"
#include "tool/subtree.h"
#include "tool/tool.h"

namespace tav::tool {

int read_subtree(Client &client, const std::string &path, std::vector<DumpElement> &elements) {
    api_status_t status = api_status_none;
    if (tav::dump(client.handle(), path, status, elements) != 0) {
        return exit_unreachable;
    }
    if (status != api_status_ok) {
        complain_reading(client, path, status, Wanted::anything);
        return exit_refused;
    }
    return exit_done;
}

namespace {

Json leaf_json(const std::string &path, element_type_t type, const std::string &text,
               std::int64_t time) {
    Json entry = Json::object();
    add_text(entry, "path", path);
    entry["status"] = status_name(api_status_ok);
    entry["type"] = type_name(type);
    add_text(entry, "value", text);
    entry["time"] = time;
    return entry;
}

// Prints two columns, which must already be escaped: padded for people, separated by a tab for
// programs.
struct Row {
    std::string left;
    Style left_style = Style::plain;
    std::string right;
};

// The number of characters, for padding: UTF-8's continuation bytes are not counted.
std::size_t width(const std::string &text) {
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xc0U) != 0x80;
    }));
}

void print_rows(const std::vector<Row> &rows) {
    constexpr std::size_t widest = 60; // one long path must not push all values off the screen
    std::size_t column = 0;
    for (const Row &row : rows) {
        column = std::max(column, std::min(width(row.left), widest));
    }
    for (const Row &row : rows) {
        const std::size_t taken = std::min(width(row.left), column);
        const std::string gap = on_terminal() ? std::string(column + 2 - taken, ' ') : "\t";
        std::cout << painted(row.left, row.left_style) << gap << row.right << '\n';
    }
}

int get_below(Client &client, const Options &options) {
    std::vector<Row> rows;
    Json all = Json::array();
    int result = exit_done;
    for (const std::string &path : options.paths) {
        std::vector<DumpElement> elements;
        const int read = read_subtree(client, path, elements);
        if (read == exit_unreachable) {
            return read;
        }
        result = std::max(result, read);
        for (const DumpElement &element : elements) {
            const Value &value = element.value;
            if (value.type == element_type_node) {
                continue;
            }
            if (options.json) {
                all.push_back(leaf_json(element.path, value.type, value.text, value.time));
            } else {
                rows.push_back(Row{shown(element.path), Style::name, shown(value.text)});
            }
        }
    }
    if (options.json) {
        std::cout << terminal::json_text(all, 2) << '\n';
    } else {
        print_rows(rows);
    }
    return result;
}

// The unchanged bytes, for programs. They are not written to a terminal.
void print_raw(const std::string &text) {
    if (on_terminal()) {
        std::cout << shown(text) << '\n';
    } else {
        std::cout << text;
    }
}

} // namespace

int get(Client &client, const Options &options) {
    if (options.recursive) {
        return get_below(client, options);
    }
    std::vector<api_status_t> statuses;
    std::vector<toolkit::CElement> values;
    std::vector<element_property_t> properties;
    if (client.tav.get_leaves(options.paths, statuses, values, properties) != 0) {
        return exit_unreachable;
    }
    int result = exit_done;
    Json all = Json::array();
    for (std::size_t i = 0; i < options.paths.size(); ++i) {
        const toolkit::CElement &value = values[i];
        if (statuses[i] != api_status_ok) {
            complain_reading(client, options.paths[i], statuses[i], Wanted::leaf);
            result = exit_refused;
            Json entry = Json::object();
            add_text(entry, "path", options.paths[i]);
            entry["status"] = status_name(statuses[i]);
            all.push_back(std::move(entry));
        } else if (options.json) {
            all.push_back(
                leaf_json(options.paths[i], value.type(), value.to_string(), value.time()));
        } else if (options.raw) {
            print_raw(value.to_string());
        } else {
            std::cout << shown(value.to_string()) << '\n';
        }
    }
    if (options.json) {
        std::cout << terminal::json_text(all, 2) << '\n';
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
        complain_reading(client, path, status, Wanted::node);
        return exit_refused;
    }
    Json all = Json::array();
    std::vector<Row> rows;
    for (const auto &[name, kind] : children) {
        const Style style = kind.first == element_type_node ? Style::name : Style::plain;
        if (options.json) {
            Json entry = Json::object();
            add_text(entry, "name", name);
            entry["type"] = type_name(kind.first);
            all.push_back(std::move(entry));
        } else if (options.long_listing) {
            rows.push_back(Row{type_name(kind.first), Style::dim, shown(name, style)});
        } else {
            std::cout << shown(name, style) << '\n';
        }
    }
    if (options.json) {
        std::cout << terminal::json_text(all, 2) << '\n';
    }
    print_rows(rows);
    return exit_done;
}

namespace {

void print_tree_json(const std::vector<DumpElement> &elements) {
    Json all = Json::array();
    for (const DumpElement &element : elements) {
        all.push_back(element_json(element, true));
    }
    std::cout << terminal::json_text(all, 2) << '\n';
}

} // namespace

int tree(Client &client, const Options &options) {
    const std::string &start = options.paths.front();
    std::vector<DumpElement> elements;
    const int result = read_subtree(client, start, elements);
    if (result != exit_done) {
        return result;
    }
    if (options.json) {
        print_tree_json(elements);
        return exit_done;
    }
    const auto depth = [](const std::string &path) {
        return path == "/" ? 0 : std::count(path.begin(), path.end(), '/');
    };
    for (const DumpElement &element : elements) {
        const bool top = &element == &elements.front();
        const auto indent = static_cast<std::size_t>(depth(element.path) - depth(start)) * 2;
        const std::string name =
            top ? element.path : element.path.substr(element.path.rfind('/') + 1);
        std::cout << std::string(indent, ' ');
        if (element.value.type == element_type_node) {
            std::cout << shown(name, Style::name) << '\n';
        } else {
            std::cout << element_line(name, element.value.type, element.value.text) << '\n';
        }
    }
    return exit_done;
}

} // namespace tav::tool
