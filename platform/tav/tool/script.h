// The text of a transaction: one step a line, as 'apply' reads it.
#ifndef TAV_TOOL_SCRIPT_H
#define TAV_TOOL_SCRIPT_H

#include <string>
#include <string_view>
#include <vector>

#include "protocol/messages.h"

namespace tav::tool {

struct Script {
    std::vector<Item> items;
    std::vector<std::size_t> lines;  // where each item stands, counted from 1
    std::vector<std::string> errors; // each begins with its line; the script is to be dropped then
};

// Empty lines and lines that begin with "#" are passed over. The others are
//
//   set [-t TYPE] PATH VALUE [PATH VALUE]...
//   mknode PATH...      rm [-r] PATH...      touch PATH...
//
// Words are separated by blanks. A word that holds blanks stands in double quotes, or has a
// backslash before each of them; both forms may hold the escapes of escape.h.
Script parse_script(std::string_view text);

// A path without a "/" at its end, which whoever types or completes a node's path leaves there.
std::string trimmed_path(std::string path);

} // namespace tav::tool

#endif
