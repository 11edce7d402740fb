// The tool's output: escaping, colours and standard error.
#ifndef TAV_TOOL_SCREEN_H
#define TAV_TOOL_SCREEN_H

#include <string>
#include <string_view>

#include "tool/text.h"

namespace tav::tool {

enum class Color { automatic, always, never };

// The kind of a piece of output; decides its colour, if there are colours.
enum class Tone { plain, node, type, added, removed };

// Call this once, before any output. Automatic: colours on a terminal that is not dumb, unless
// NO_COLOR is set in the environment and not empty.
void choose_color(Color color);

// Whether standard output is a terminal: columns are for people.
bool on_terminal();

// A name or value as text (see escape.h), in a colour if there are colours.
std::string shown(std::string_view text, Tone tone = Tone::plain);

// The same without escaping, for words of the tool's own.
std::string painted(std::string_view words, Tone tone);

// JSON text without control characters. With `indent` -1 it is one line.
std::string json_text(const Json &json, int indent = -1);

// "path = value (type)", or "path (node)".
std::string element_line(std::string_view name, element_type_t type, std::string_view value,
                         Tone tone = Tone::plain);

// Prints on standard error, after "tav: " and before a newline.
void complain(std::string_view message);

// Writes buffered output; false, after a message, if output was lost.
bool finish_output();

} // namespace tav::tool

#endif
