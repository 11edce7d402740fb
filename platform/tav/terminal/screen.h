// How text is shown: what the terminal can show, colours, and JSON that is safe on one.
#pragma once

#include <string>
#include <string_view>

#include <nlohmann/json_fwd.hpp>

namespace tav::terminal {

enum class Color { automatic, always, never };

// The kind of a piece of output; decides its colour, if there are colours.
enum class Style { plain, heading, name, dim, good, bad, warn, number_ };

// Whether standard output is a terminal: columns are for people.
bool on_terminal();

// Whether to colour standard output. Automatic: on a terminal other than a dumb one, and unless
// NO_COLOR is set in the environment and not empty.
bool use_color(Color wish);

// A name or value from elsewhere as text that cannot control a terminal (see escape.h). It is only
// ASCII if the terminal does not expect UTF-8.
std::string shown(std::string_view text);

// The same as one word of a shell's command line, so that a suggested command can be copied. It is
// only ASCII unless the locale is UTF-8, even if it is not printed on a terminal: every shell then
// reads it back to the same bytes.
std::string shown_word(std::string_view text);

// `words`, which are the program's own or were shown(), in a style's colour if `color`.
std::string painted(std::string_view words, Style style, bool color);

// JSON text without control characters. Bytes that are not UTF-8 are replaced. With `indent` -1 it
// is one line.
std::string json_text(const nlohmann::ordered_json &json, int indent = -1);

} // namespace tav::terminal
