#include "tool/dump_format.h"

#include <cstdint>
#include <iostream>
#include <unordered_set>

#include <nlohmann/json.hpp>

#include "service/path.h"
#include "tool/screen.h"

namespace tav::tool {

namespace {

constexpr const char *format_name = "tav-dump";
constexpr int format_version = 1;

// The member `key` of an element's text; `what` says which element.
std::string text_of(const Json &entry, const std::string &key, const std::string &what) {
    const std::optional<std::string> text = find_text(entry, key);
    if (!text) {
        throw BadDump(what + " has no \"" + key + "\", or it is not a string");
    }
    return *text;
}

Value value_of(const Json &entry, const std::string &what) {
    const std::string type = text_of(entry, "type", what);
    if (type == type_name(element_type_node)) {
        return Value{element_type_node, {}, no_time};
    }
    const std::optional<element_type_t> leaf = leaf_type(type);
    if (!leaf) {
        throw BadDump(what + ": \"" + shown(type) +
                      "\" is not a type; the types are node, string, boolean, integer and real");
    }
    const std::string value = text_of(entry, "value", what);
    const Json time = entry.value("time", Json(no_time));
    // An unsigned number may be too large for signed 64 bits.
    if (!time.is_number_integer() ||
        (time.is_number_unsigned() && time.get<std::uint64_t>() > INT64_MAX)) {
        throw BadDump(what + ": the time is not a whole number of seconds");
    }
    return Value{*leaf, value, time.get<std::int64_t>()};
}

Json parse_document(const std::string &text) {
    try {
        return Json::parse(text);
    } catch (const Json::exception &error) { // also for numbers too large for a double
        // The message follows the library's own name for the error.
        const std::string message = error.what();
        const std::size_t name_end = message.find("] ");
        throw BadDump(
            shown(name_end == std::string::npos ? message : message.substr(name_end + 2)));
    }
}

const Json &elements_of(const Json &document) {
    if (!document.is_object() || document.value("format", Json()) != format_name) {
        throw BadDump("it is not a dump; 'tav dump' makes one");
    }
    if (document.value("version", Json()) != format_version) {
        throw BadDump("it is a dump of another version; this tool reads version " +
                      std::to_string(format_version));
    }
    const auto elements = document.find("elements");
    if (elements == document.end() || !elements->is_array()) {
        throw BadDump("it has no list of \"elements\"");
    }
    return *elements;
}

} // namespace

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

Dump parse_dump(const std::string &text) {
    const Json document = parse_document(text);
    const Json &elements = elements_of(document);
    Dump dump;
    dump.path = text_of(document, "path", "the dump");
    if (check_path(dump.path) != api_status_ok) {
        throw BadDump("\"" + shown(dump.path) + "\" is not a path");
    }
    std::unordered_set<std::string> seen;
    for (const Json &entry : elements) {
        std::string what = "element " + std::to_string(dump.elements.size() + 1);
        if (!entry.is_object()) {
            throw BadDump(what + " is not an object");
        }
        const std::string path = text_of(entry, "path", what);
        what += " (" + shown(path) + ")";
        if (!is_at_or_below(path, dump.path)) {
            throw BadDump(what + " is not below " + shown(dump.path) + ", the path of the dump");
        }
        if (!seen.insert(path).second) {
            throw BadDump(what + " occurs twice");
        }
        dump.elements.push_back(DumpElement{path, value_of(entry, what)});
    }
    return dump;
}

void print_dump(const Dump &dump, bool with_times) {
    Json head = Json::object();
    head["format"] = format_name;
    head["version"] = format_version;
    add_text(head, "path", dump.path);
    std::string opened = terminal::json_text(head);
    opened.pop_back();
    std::cout << opened << ",\"elements\":[";
    const char *separator = "\n";
    for (const DumpElement &element : dump.elements) {
        if (element.path == "/") {
            continue; // every store has it
        }
        std::cout << separator << terminal::json_text(element_json(element, with_times));
        separator = ",\n";
    }
    std::cout << "\n]}\n";
}

} // namespace tav::tool
