// Which texts the types of values allow.
#pragma once

#include "protocol/messages.h"

namespace tav {

// api_status_ok, api_status_value_too_long, or api_status_bad_value for a text that the type does
// not allow, or a type that leaves cannot have:
//   boolean  "true" or "false"
//   integer  an optional "-", decimal digits; within signed 64 bits
//   real     an optional "-", digits, optionally "." and digits, optionally "e" or "E", an optional
//            sign and digits; within the range of an IEEE double
//   string   any bytes but NUL
api_status_t check_value(const Value &value);

} // namespace tav
