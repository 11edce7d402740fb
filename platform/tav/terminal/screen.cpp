#include "terminal/screen.h"

#include <langinfo.h>
#include <unistd.h>

#include <array>
#include <clocale>
#include <cstdlib>
#include <cstring>

#include <nlohmann/json.hpp>

#include "in_order.h"
#include "terminal/escape.h"

namespace tav::terminal {

namespace {

struct Code {
    Style style;
    const char *sequence;
};
constexpr std::array<Code, static_cast<std::size_t>(Style::number_)> codes{{
    {Style::plain, ""},
    {Style::heading, "\x1b[1m"},
    {Style::name, "\x1b[1;34m"},
    {Style::dim, "\x1b[2m"},
    {Style::good, "\x1b[32m"},
    {Style::bad, "\x1b[31m"},
    {Style::warn, "\x1b[33m"},
}};

static_assert(in_order(codes, &Code::style));

bool locale_is_utf8() {
    static const bool result = [] {
        std::setlocale(LC_CTYPE, "");
        return std::strcmp(::nl_langinfo(CODESET), "UTF-8") == 0;
    }();
    return result;
}

// A terminal that does not expect UTF-8 may treat some of its bytes as control characters.
bool ascii_only() {
    static const bool terminal = on_terminal() || ::isatty(STDERR_FILENO) == 1;
    return terminal && !locale_is_utf8();
}

bool is_set(const char *variable) {
    const char *value = std::getenv(variable);
    return value != nullptr && *value != '\0';
}

} // namespace

bool on_terminal() {
    return ::isatty(STDOUT_FILENO) == 1;
}

bool use_color(Color wish) {
    if (wish != Color::automatic) {
        return wish == Color::always;
    }
    const char *kind = std::getenv("TERM");
    const bool dumb = kind == nullptr || std::strcmp(kind, "dumb") == 0;
    return on_terminal() && !dumb && !is_set("NO_COLOR");
}

std::string shown(std::string_view text) {
    return escaped(text, ascii_only());
}

std::string shown_word(std::string_view text) {
    return shell_word(text, !locale_is_utf8());
}

std::string painted(std::string_view words, Style style, bool color) {
    if (!color || style == Style::plain) {
        return std::string(words);
    }
    return codes.at(static_cast<std::size_t>(style)).sequence + std::string(words) + "\x1b[0m";
}

std::string json_text(const nlohmann::ordered_json &json, int indent) {
    using Handler = nlohmann::ordered_json::error_handler_t;
    std::string text = json.dump(indent, ' ', ascii_only(), Handler::replace);
    // By default JSON escapes only characters below U+0020.
    return holds_hidden(text) ? json.dump(indent, ' ', true, Handler::replace) : text;
}

} // namespace tav::terminal
