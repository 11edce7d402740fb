// Carrying out a transaction for a command.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "protocol/messages.h"
#include "tool/tool.h"

namespace tav::tool {

// The text to print before the path of the item with this index, for example "line 3: ".
using Place = std::function<std::string(std::size_t)>;

// Performs all items or none, reports the refused ones, and returns the exit code.
int perform(
    Client &client, const std::vector<Item> &items,
    const Place &place = [](std::size_t) { return std::string(); });

} // namespace tav::tool
