// Uses everything that the daemon needs from a store client library once, in the same way.
// cmake/foreign_tav.cmake compiles and links this, so that it can report early what a library
// lacks.
#include <cstdint>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <tav/mlr.h>
#include <tav/toolkit.h>

#include "store/tav_values.h"

static_assert(std::is_same<decltype(toolkit::CTav::handle), mlr_client_t *>::value,
              "CTav::handle must be an mlr_client_t *");
static_assert(std::is_constructible<std::string, const tk_string &>::value,
              "tk_string must convert to std::string");

// The library may call this function of the program.
extern "C" __attribute__((weak)) void mlr_err(unsigned int, const char *, ...) {}

int main() {
    toolkit::CTav tav;
    tav.handle = mlr_init();
    const tk_string path("/");
    const std::vector<tk_string> paths{path};
    api_status_t status = tav_value::status_unset;
    std::vector<api_status_t> statuses;
    element_property_t property = tav_value::property_unset;
    std::vector<element_property_t> properties;
    toolkit::CElement value(path, toolkit::CElement::_invalid_time);
    std::vector<toolkit::CElement> values{value};
    std::vector<toolkit::child_t> children;
    const std::vector<mlr_tribool_t> flags{tav_value::write_flag};
    std::vector<toolkit::CEvent> events;

    int result = mlr_get_fd(tav.handle);
    result += tav.get_leaf(path, status, value, property);
    result += tav.get_leaves(paths, statuses, values, properties);
    result += tav.list_node(path, status, children);
    result += tav.set_leaf(path, value, status, tav_value::write_flag, tk_string());
    result += tav.set_leaves(paths, values, flags, statuses, tk_string());
    result += tav.remove_node(path, status, tk_string());
    result += tav.event_register(path, tav_value::event_change, false, status);
    result += tav.events_get(events);
    result += tav.watchdog_register(status, path, 60, true);
    result += tav.watchdog_ping(status);
    for (const toolkit::child_t &child : children) {
        const std::pair<tk_string, std::pair<element_type_t, element_property_t>> &parts = child;
        result += parts.second.first == tav_value::type_node ? 1 : 0;
    }
    for (const toolkit::CEvent &event : events) {
        result += static_cast<std::int32_t>(event.command) + (event.path == path ? 1 : 0);
    }
    const tk_string text = value.to_string();
    result += value.type() == tav_value::type_string ? static_cast<int>(text.size()) : 0;
    mlr_close(tav.handle);
    return result;
}
