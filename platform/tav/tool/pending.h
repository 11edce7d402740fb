// Changes that the service reverts unless they are confirmed in time.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "protocol/history.h"
#include "protocol/messages.h"
#include "tool/tool.h"

namespace tav::tool {

// "60 s", "0.5 s".
std::string seconds_text(std::uint32_t milliseconds);

// Prints how to confirm the change with that number, or, for 0, that nothing was changed.
void print_term(std::uint64_t number, std::uint32_t term);

// After a change without a term: says so if another one of the same elements waits.
void warn_of_pending(Client &client, const std::vector<Item> &items);

// Whose change an element at, above or below the path waits for; empty if there is none any more.
std::string advice_for_pending(Client &client, const std::string &path);

} // namespace tav::tool
