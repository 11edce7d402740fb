// Error messages about paths: what was wrong, and what to do about it.
#pragma once

#include <string>

#include "protocol/messages.h"
#include "tool/tool.h"

namespace tav::tool {

enum class Wanted { leaf, node, anything };

// Reports that a path could not be read. Reads the store to find advice.
void complain_reading(Client &client, const std::string &path, api_status_t status, Wanted wanted);

// Reports that a step of a transaction was refused. `place` is printed before the path ("line 3:
// ").
void complain_writing(Client &client, const Item &item, api_status_t status,
                      const std::string &place = "");

} // namespace tav::tool
