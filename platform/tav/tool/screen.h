// The tool's output: escaping, colours and standard error.
#pragma once

#include <string>
#include <string_view>

#include "terminal/screen.h"
#include "tool/text.h"

namespace tav::tool {

using terminal::on_terminal;
using terminal::Style;

// Call this once, before any output.
void choose_color(terminal::Color color);

// A name or value as text (see terminal/escape.h), in a colour where there are colours.
std::string shown(std::string_view text, Style style = Style::plain);

// The same without escaping, for words of the tool's own.
std::string painted(std::string_view words, Style style);

// "path = value (type)", or "path (node)".
std::string element_line(std::string_view name, element_type_t type, std::string_view value,
                         Style style = Style::plain);

// Prints on standard error, after "tav: " and before a newline.
void complain(std::string_view message);

// Writes buffered output; false, after a message, if output was lost.
bool finish_output();

} // namespace tav::tool
