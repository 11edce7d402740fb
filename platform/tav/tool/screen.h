// Where the tool's output goes, and how it may look there.
#ifndef TAV_TOOL_SCREEN_H
#define TAV_TOOL_SCREEN_H

#include <string>
#include <string_view>

#include "tool/text.h"

namespace tav::tool {

enum class Color { automatic, always, never };

// What a piece of output is; decides its colour, if there are colours.
enum class Tone { plain, node, type, added, removed };

// To be called once, before anything is shown. Automatic: on a terminal other than a dumb one, and
// unless NO_COLOR is set in the environment and not empty.
void choose_color(Color color);

// Whether standard output is a terminal: columns are for people.
bool on_terminal();

// A name or value as text (see escape.h), in a colour where there are colours.
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

// Brings out what is still buffered; false, after a complaint, when output was lost.
bool finish_output();

} // namespace tav::tool

#endif
