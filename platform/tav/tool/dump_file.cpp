// dump, load and diff.
#include <iostream>
#include <map>
#include <utility>

#include "client/admin.h"
#include "protocol/limits.h"
#include "service/path.h"
#include "tool/dump_format.h"
#include "tool/explain.h"
#include "tool/file.h"
#include "tool/screen.h"
#include "tool/subtree.h"
#include "tool/transaction.h"

namespace tav::tool {

namespace {

// Reads the dump in a file. Empty, after a message, if that fails.
std::optional<Dump> dump_in(const std::string &file) {
    const std::optional<std::string> text = read_file(file);
    if (!text) {
        return std::nullopt;
    }
    try {
        return parse_dump(*text);
    } catch (const BadDump &error) {
        complain(file_name(file) + ": " + error.what());
        return std::nullopt;
    }
}

// The steps that write a dump's elements. A node with elements below it needs no step: it is
// created with them.
std::vector<Item> items_of(const Dump &dump) {
    std::vector<Item> items;
    for (std::size_t i = 0; i < dump.elements.size(); ++i) {
        const DumpElement &element = dump.elements[i];
        if (element.value.type != element_type_node) {
            items.push_back(Item{ItemKind::set, element.path, element.value});
        } else if (i + 1 == dump.elements.size() ||
                   !is_at_or_below(dump.elements[i + 1].path, element.path)) {
            items.push_back(Item{ItemKind::make_node, element.path, {}});
        }
    }
    return items;
}

// The approximate size of an item in a request; its fixed part is rounded up.
std::size_t bytes_of(const Item &item) {
    constexpr std::size_t fixed = 64;
    return item.path.size() + item.value.text.size() + fixed;
}

// The items from `first` on that fit one transaction with a good margin.
std::vector<Item> next_part(const std::vector<Item> &items, std::size_t first) {
    std::vector<Item> part;
    std::size_t bytes = 0;
    while (first < items.size() && part.size() < limits::paths_per_request / 2 &&
           bytes < limits::frame_bytes / 2) {
        bytes += bytes_of(items[first]);
        part.push_back(items[first++]);
    }
    return part;
}

int perform_in_parts(Client &client, const std::vector<Item> &items) {
    for (std::size_t first = 0; first < items.size();) {
        const std::vector<Item> part = next_part(items, first);
        const int result = perform(client, part);
        if (result != exit_done) {
            complain(std::to_string(first) + " of " + std::to_string(items.size()) +
                     " steps were done before the failure");
            return result;
        }
        first += part.size();
    }
    return exit_done;
}

using Elements = std::map<std::string, Value>;

Elements by_path(std::vector<DumpElement> &&elements) {
    Elements result;
    for (DumpElement &element : elements) {
        // Every store has the root, and a dump does not list it.
        if (element.path != "/") {
            result.emplace(std::move(element.path), std::move(element.value));
        }
    }
    return result;
}

void print_side(const char *sign, const Elements::value_type &element, Style style) {
    std::cout << painted(sign, style)
              << element_line(element.first, element.second.type, element.second.text, style)
              << '\n';
}

// Prints the elements that only one side has. A leaf whose type or value differs is printed for
// both sides.
bool print_differences(const Elements &before, const Elements &now) {
    bool same = true;
    const auto differs = [](const Elements::value_type &element, const Elements &others) {
        const auto other = others.find(element.first);
        return other == others.end() || other->second.type != element.second.type ||
               other->second.text != element.second.text;
    };
    auto old_side = before.begin();
    auto new_side = now.begin();
    while (old_side != before.end() || new_side != now.end()) {
        const bool take_old = new_side == now.end() ||
                              (old_side != before.end() && old_side->first <= new_side->first);
        const Elements::value_type &element = take_old ? *old_side++ : *new_side++;
        if (differs(element, take_old ? now : before)) {
            same = false;
            print_side(take_old ? "- " : "+ ", element, take_old ? Style::bad : Style::good);
        }
    }
    return same;
}

} // namespace

int dump(Client &client, const Options &options) {
    Dump dump{options.paths.front(), {}};
    const int result = read_subtree(client, dump.path, dump.elements);
    if (result == exit_done) {
        print_dump(dump, !options.no_time);
    }
    return result;
}

int load(Client &client, const Options &options) {
    const std::optional<Dump> dump = dump_in(options.file);
    if (!dump) {
        complain("nothing was changed");
        return exit_refused;
    }
    std::vector<Item> items = items_of(*dump);
    if (options.replace) {
        items.insert(items.begin(), Item{ItemKind::clear, dump->path, {}});
    }
    return options.parts ? perform_in_parts(client, items) : perform(client, items);
}

int diff(Client &client, const Options &options) {
    std::optional<Dump> dump = dump_in(options.file);
    if (!dump) {
        return exit_trouble;
    }
    api_status_t status = api_status_none;
    std::vector<DumpElement> current;
    if (tav::dump(client.handle(), dump->path, status, current) != 0) {
        return exit_trouble;
    }
    // An absent path is a difference, not an error.
    if (status != api_status_ok && status != api_status_absent) {
        complain_reading(client, dump->path, status, Wanted::anything);
        return exit_trouble;
    }
    const bool same =
        print_differences(by_path(std::move(dump->elements)), by_path(std::move(current)));
    return same ? exit_done : exit_different;
}

} // namespace tav::tool
