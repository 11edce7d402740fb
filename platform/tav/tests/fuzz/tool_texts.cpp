// What the store's command-line tool reads: dumps and transactions as text; and its escapes, which
// must lose nothing and keep a terminal safe.
#include <iostream>
#include <sstream>

#include <nlohmann/json.hpp>

#include "fuzz/fuzz.h"
#include "service/path.h"
#include "terminal/escape.h"
#include "tool/dump_format.h"
#include "tool/script.h"

namespace {

using fuzz::require;
using fuzz::require_same;

std::string described(const tav::tool::Dump &dump) {
    std::string text = dump.path + "\n";
    for (const tav::DumpElement &element : dump.elements) {
        if (element.path != "/") {
            text += element.path + " " + std::to_string(element.value.type) + " " +
                    element.value.text + " " + std::to_string(element.value.time) + "\n";
        }
    }
    return text;
}

std::string printed(const tav::tool::Dump &dump) {
    std::ostringstream out;
    std::streambuf *const terminal = std::cout.rdbuf(out.rdbuf());
    tav::tool::print_dump(dump, true);
    std::cout.rdbuf(terminal);
    return out.str();
}

// A dump that is accepted has only paths at or below its own, each once, and is printed as a dump
// that reads the same.
void read_dump(const std::string &text) {
    tav::tool::Dump dump;
    try {
        dump = tav::tool::parse_dump(text);
    } catch (const tav::tool::BadDump &) {
        return;
    }
    const auto elements = tav::tool::Json::parse(text).at("elements");
    for (std::size_t i = 0; i < dump.elements.size(); ++i) {
        const tav::DumpElement &element = dump.elements[i];
        const auto time = elements.at(i).find("time");
        require(element.value.type == element_type_node || time == elements.at(i).end() ||
                    time->dump() == std::to_string(element.value.time),
                "another time");
        require(tav::is_at_or_below(element.path, dump.path), "an element beside the dump");
        require(element.value.type >= 2 && element.value.type <= 6, "an element of no type");
    }
    const tav::tool::Dump again = tav::tool::parse_dump(printed(dump));
    require_same(described(again), described(dump), "what was printed reads otherwise");
}

// A text that the store may contain.
std::string without_nul(std::string text) {
    for (char &one : text) {
        one = one == '\0' ? '0' : one;
    }
    return text;
}

// Any elements are printed as a dump that reads the same.
void write_dump(fuzz::input_t input) {
    tav::tool::Dump dump;
    dump.path = "/";
    for (unsigned number = 0; !input.empty(); ++number) {
        tav::DumpElement element;
        element.path = "/" + std::to_string(number) + " " + without_nul(input.text());
        element.value.type = static_cast<element_type_t>(2 + input.byte() % 5U);
        if (element.value.type != element_type_node) {
            element.value.text = without_nul(input.text());
            element.value.time =
                static_cast<std::int16_t>(input.number()) * std::int64_t{281474976710656};
        }
        dump.elements.push_back(element);
    }
    require_same(described(tav::tool::parse_dump(printed(dump))), described(dump),
                 "what was printed reads otherwise");
}

bool is_control(unsigned char byte) {
    return byte < 0x20 || byte == 0x7f;
}

void escape(const std::string &text) {
    for (const bool ascii_only : {false, true}) {
        const std::string escaped = tav::terminal::escaped(text, ascii_only);
        for (std::size_t i = 0; i < escaped.size(); ++i) {
            const auto byte = static_cast<unsigned char>(escaped[i]);
            require(!is_control(byte), "a control character is shown");
            require(!ascii_only || byte < 0x80, "more than ASCII is shown");
            const auto next =
                static_cast<unsigned char>(i + 1 < escaped.size() ? escaped[i + 1] : '\0');
            require(byte != 0xc2 || next >= 0xa0, "a control character of two bytes is shown");
        }
        if (text.find('\0') == std::string::npos) {
            require(tav::terminal::unescaped(escaped) == text, "an escaped text reads otherwise");
        }
    }
    const auto plain = tav::terminal::unescaped(text);
    require(!plain || plain->find('\0') == std::string::npos ||
                text.find('\0') != std::string::npos,
            "an escape for NUL was taken");
}

// The same word in double quotes, as in a transaction.
std::string quoted(const std::string &text) {
    std::string word = "\"";
    for (const char one : tav::terminal::escaped(text)) {
        word += one == '"' ? std::string("\\\"") : std::string(1, one);
    }
    return word + "\"";
}

void read_script(const std::string &text) {
    const tav::tool::Script script = tav::tool::parse_script(text);
    require(script.lines.size() == script.items.size(), "not one line for each item");
    const std::size_t lines = fuzz::split(text, '\n').size();
    std::size_t before = 0;
    for (const std::size_t line : script.lines) {
        require(line >= 1 && line <= lines && line >= before, "an item without its line");
        before = line;
    }
}

void write_script(const std::string &text) {
    const std::vector<std::string> parts = fuzz::split(without_nul(text), '\n');
    const std::string path = "/x" + parts.front();
    const std::string value = text.size() > parts.front().size()
                                  ? without_nul(text).substr(parts.front().size() + 1)
                                  : "";
    const tav::tool::Script script =
        tav::tool::parse_script("set " + quoted(path) + " " + quoted(value));
    require(script.errors.empty() && script.items.size() == 1, "a step is not understood");
    require_same(script.items[0].path, tav::tool::trimmed_path(path), "another path");
    require_same(script.items[0].value.text, value, "another value");
}

} // namespace

// The first byte of an input selects what to do with the rest.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    fuzz::input_t input(data, size);
    const unsigned what = input.byte();
    if (what == 'w') {
        write_dump(input);
        return 0;
    }
    const std::string text = input.rest();
    switch (what) {
    case 'd':
        read_dump(text);
        break;
    case 'e':
        escape(text);
        break;
    case 's':
        read_script(text);
        break;
    default:
        write_script(text);
    }
    return 0;
}
