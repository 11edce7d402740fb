// Input files of a command.
#pragma once

#include <optional>
#include <string>

namespace tav::tool {

// The content of a file, or of standard input for "-". Empty, after a message, if it cannot be
// read.
std::optional<std::string> read_file(const std::string &file);

// A file's name for messages.
std::string file_name(const std::string &file);

} // namespace tav::tool
