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

// The text to print before no path.
inline std::string nowhere(std::size_t /*item*/) {
    return {};
}

// As the program `tav`: all items or none, one status per item; negative when the connection is
// lost. With a term of the client it prints how to confirm the change.
int transact(Client &client, const std::vector<Item> &items, std::vector<api_status_t> &statuses);

// Reports the items that were refused, and returns the exit code.
int report(Client &client, const std::vector<Item> &items,
           const std::vector<api_status_t> &statuses, const Place &place = nowhere);

// Performs all items or none, reports the refused ones, and returns the exit code.
int perform(Client &client, const std::vector<Item> &items, const Place &place = nowhere);

} // namespace tav::tool
