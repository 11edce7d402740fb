// dump and load: a subtree as JSON, one element a line, so that two dumps can be compared.
#include <array>
#include <fstream>
#include <iostream>

#include "client/admin.h"
#include "tool/text.h"
#include "tool/tool.h"
#include "tool/transaction.h"

namespace tav::tool {

namespace {

constexpr const char *format_name = "tav-dump";
constexpr int format_version = 1;

Json element_json(const DumpElement &element, bool with_time) {
    Json entry = Json::object();
    add_text(entry, "path", element.path);
    entry["type"] = type_name(element.value.type);
    if (element.value.type != element_type_node) {
        add_text(entry, "value", element.value.text);
        if (with_time) {
            entry["time"] = element.value.time;
        }
    }
    return entry;
}

// The transaction step that an element of a dump stands for; empty when it makes no sense.
std::optional<Item> item_of(const Json &entry) {
    if (!entry.is_object()) {
        return std::nullopt;
    }
    const std::optional<std::string> path = find_text(entry, "path");
    const std::optional<std::string> type = find_text(entry, "type");
    if (!path || !type) {
        return std::nullopt;
    }
    if (*type == type_name(element_type_node)) {
        return Item{ItemKind::make_node, *path, {}};
    }
    const std::optional<element_type_t> leaf = leaf_type(*type);
    const std::optional<std::string> value = find_text(entry, "value");
    if (!leaf || !value) {
        return std::nullopt;
    }
    const Json time = entry.value("time", Json(no_time));
    if (!time.is_number_integer()) {
        return std::nullopt;
    }
    return Item{ItemKind::set, *path, Value{*leaf, *value, time.get<std::int64_t>()}};
}

std::string read_stream(std::istream &stream) {
    std::string all;
    std::array<char, 65536> part{};
    do {
        stream.read(part.data(), static_cast<std::streamsize>(part.size()));
        all.append(part.data(), static_cast<std::size_t>(stream.gcount()));
    } while (stream);
    return all;
}

std::optional<std::string> read_all(const std::string &file) {
    if (file == "-") {
        return read_stream(std::cin);
    }
    std::ifstream stream(file, std::ios::binary);
    if (!stream) {
        return std::nullopt;
    }
    return read_stream(stream);
}

std::optional<std::vector<Item>> parse_dump(const std::string &text) {
    const Json document = Json::parse(text, nullptr, false);
    if (!document.is_object() || document.value("format", Json()) != format_name ||
        document.value("version", Json()) != format_version) {
        return std::nullopt;
    }
    const auto elements = document.find("elements");
    if (elements == document.end() || !elements->is_array()) {
        return std::nullopt;
    }
    std::vector<Item> items;
    for (const Json &entry : *elements) {
        const std::optional<Item> item = item_of(entry);
        if (!item) {
            return std::nullopt;
        }
        items.push_back(*item);
    }
    return items;
}

} // namespace

int dump(Client &client, const Options &options) {
    const std::string &path = options.paths.front();
    api_status_t status = api_status_none;
    std::vector<DumpElement> elements;
    if (tav::dump(client.handle(), path, status, elements) != 0) {
        return exit_unreachable;
    }
    if (status != api_status_ok) {
        complain(path, status);
        return exit_refused;
    }
    std::cout << "{\"format\":\"" << format_name << "\",\"version\":" << format_version
              << ",\"elements\":[";
    const char *separator = "\n";
    for (const DumpElement &element : elements) {
        if (element.path == "/") {
            continue; // every store has it
        }
        std::cout << separator << element_json(element, !options.no_time).dump();
        separator = ",\n";
    }
    std::cout << "\n]}\n";
    std::cout.flush();
    if (!std::cout) {
        std::cerr << "tav: the dump could not be written\n";
        return exit_refused;
    }
    return exit_done;
}

int load(Client &client, const Options &options) {
    const std::optional<std::string> text = read_all(options.file);
    if (!text) {
        std::cerr << "tav: cannot read '" << escaped(options.file) << "'\n";
        return exit_refused;
    }
    const std::optional<std::vector<Item>> items = parse_dump(*text);
    if (!items) {
        std::cerr << "tav: '" << escaped(options.file) << "' is not a dump\n";
        return exit_refused;
    }
    return perform(client, *items);
}

} // namespace tav::tool
