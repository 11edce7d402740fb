// How a transaction is undone.
#pragma once

#include <vector>

#include "protocol/history.h"

namespace tav::tool {

// The steps that bring back what there was before the entry, under the condition that all of its
// elements are as it left them.
std::vector<Item> steps_to_undo(const HistoryEntry &entry);

// Who made the entry, in words.
std::string author_text(const HistoryEntry &entry);

} // namespace tav::tool
