// Types, statuses and bytes as text and as JSON.
#pragma once

#include <tav/mlr.h>

#include <nlohmann/json_fwd.hpp>

#include <optional>
#include <string>
#include <string_view>

#include "terminal/hex.h"

namespace tav::tool {

// Keeps the keys in the order in which they are added: output stays the same from run to run.
using Json = nlohmann::ordered_json;

// "node", "boolean", "integer", "real", "string"; "unknown" for anything else.
const char *type_name(element_type_t type);
// The leaf types by name only.
std::optional<element_type_t> leaf_type(std::string_view name);

// "ok", "absent", ...: a few words per status; "status N" for one that this version does not know.
std::string status_name(api_status_t status);

// Adds a text under `key`. JSON can contain only Unicode, but names and values may contain any
// bytes: a text that is not valid UTF-8 is added in hexadecimal under `key` with "_hex" appended.
void add_text(Json &object, const std::string &key, const std::string &text);
// The reverse; empty if neither key exists or its content is not a text.
std::optional<std::string> find_text(const Json &object, const std::string &key);

} // namespace tav::tool
