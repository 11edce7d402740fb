// Carrying out a transaction for a command.
#ifndef TAV_TOOL_TRANSACTION_H
#define TAV_TOOL_TRANSACTION_H

#include <vector>

#include "protocol/messages.h"
#include "tool/tool.h"

namespace tav::tool {

// Performs all items or none, complains about those refused, and returns the exit code.
int perform(Client &client, const std::vector<Item> &items);

} // namespace tav::tool

#endif
