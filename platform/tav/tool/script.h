// The text of a transaction, one step per line, as 'apply' reads it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "protocol/messages.h"

namespace tav::tool {

struct Script {
    std::vector<Item> items;
    std::vector<std::size_t> lines; // the line of each item, counted from 1
    std::vector<std::string>
        errors; // each begins with its line; if there are any, do not carry out the script
};

// Empty lines and lines that begin with "#" are skipped. The others are
//
//   set [-t TYPE] PATH VALUE [PATH VALUE]...
//   mknode PATH...      rm [-r] PATH...      touch PATH...
//
// Words are separated by blanks. A word that contains blanks is put in double quotes, or has a
// backslash before each of them; both forms may contain the escapes of escape.h.
Script parse_script(std::string_view text);

// Removes the "/" that typing or completing a node's path may leave at its end.
std::string trimmed_path(std::string path);

} // namespace tav::tool
