// The values of the store client's types that the daemon relies on. They are numbers here, because
// each provider of the client library names them differently.
#pragma once

#include <cstdint>

#include <tav/mlr.h>

namespace tav_value {

constexpr auto status_unset = static_cast<api_status_t>(0);
constexpr auto status_ok = static_cast<api_status_t>(1); // exists, or done

constexpr auto type_node = static_cast<element_type_t>(2);
constexpr auto type_string = static_cast<element_type_t>(6);

constexpr auto property_unset = static_cast<element_property_t>(0);

constexpr auto event_change = static_cast<api_event_t>(1);
constexpr std::int32_t command_notice = 1; // an event that carries no change

constexpr auto write_flag = static_cast<mlr_tribool_t>(2); // the three-valued flag of every write

} // namespace tav_value
