// Reading a whole subtree for a command.
#pragma once

#include <string>
#include <vector>

#include "protocol/messages.h"
#include "tool/tool.h"

namespace tav::tool {

// Reads all elements at and below `path`, as of one moment, in the order of listings. Prints a
// message if that fails. Returns the exit code.
int read_subtree(Client &client, const std::string &path, std::vector<DumpElement> &elements);

} // namespace tav::tool
