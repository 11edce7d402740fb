// Reading a whole subtree for a command.
#ifndef TAV_TOOL_SUBTREE_H
#define TAV_TOOL_SUBTREE_H

#include <string>
#include <vector>

#include "protocol/messages.h"
#include "tool/tool.h"

namespace tav::tool {

// All elements at and below `path`, of one moment, in the order of listings. Complains when that
// fails, and returns the exit code.
int read_subtree(Client &client, const std::string &path, std::vector<DumpElement> &elements);

} // namespace tav::tool

#endif
