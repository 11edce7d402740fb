#include "tool/screen.h"

#include <langinfo.h>
#include <unistd.h>

#include <clocale>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include <nlohmann/json.hpp>

#include "tool/escape.h"

namespace tav::tool {

namespace {

bool colors = false; // set by choose_color

const char *code(Tone tone) {
    switch (tone) {
    case Tone::node:
        return "\x1b[1;34m";
    case Tone::type:
        return "\x1b[2m";
    case Tone::added:
        return "\x1b[32m";
    case Tone::removed:
        return "\x1b[31m";
    case Tone::plain:
        break;
    }
    return "";
}

// A terminal that does not expect UTF-8 may treat some of its bytes as control characters.
bool ascii_only() {
    static const bool result = [] {
        const bool terminal = on_terminal() || ::isatty(STDERR_FILENO) == 1;
        std::setlocale(LC_CTYPE, "");
        const bool utf8 = std::strcmp(::nl_langinfo(CODESET), "UTF-8") == 0;
        return terminal && !utf8;
    }();
    return result;
}

bool is_set(const char *variable) {
    const char *value = std::getenv(variable);
    return value != nullptr && *value != '\0';
}

} // namespace

void choose_color(Color color) {
    const char *terminal = std::getenv("TERM");
    const bool dumb = terminal == nullptr || std::strcmp(terminal, "dumb") == 0;
    colors = color == Color::always ||
             (color == Color::automatic && on_terminal() && !dumb && !is_set("NO_COLOR"));
}

bool on_terminal() {
    return ::isatty(STDOUT_FILENO) == 1;
}

std::string shown(std::string_view text, Tone tone) {
    return painted(escaped(text, ascii_only()), tone);
}

std::string painted(std::string_view words, Tone tone) {
    if (!colors || tone == Tone::plain) {
        return std::string(words);
    }
    return code(tone) + std::string(words) + "\x1b[0m";
}

std::string json_text(const Json &json, int indent) {
    std::string text = json.dump(indent, ' ', ascii_only());
    // By default JSON escapes only characters below U+0020.
    return holds_hidden(text) ? json.dump(indent, ' ', true) : text;
}

std::string element_line(std::string_view name, element_type_t type, std::string_view value,
                         Tone tone) {
    const std::string kind = painted(" (" + std::string(type_name(type)) + ")", Tone::type);
    if (type == element_type_node) {
        return shown(name, tone) + kind;
    }
    return shown(name, tone) + " = " + shown(value, tone) + kind;
}

void complain(std::string_view message) {
    std::cerr << "tav: " << message << '\n';
}

bool finish_output() {
    std::cout.flush();
    if (std::cout) {
        return true;
    }
    complain("the output could not be written");
    return false;
}

} // namespace tav::tool
