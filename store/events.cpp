// The store's change events. Their paths are parsed only to filter and to report them; a
// synchronisation always covers everything.

#include "shell/log.h"
#include "store/paths.h"
#include "store/tav_values.h"
#include "sync/errors.h"
#include "sync/sync.h"

namespace {

// Splits a text at its slashes. Without a slash, the whole text is the only part.
std::vector<tk_string> split(const tk_string &text) {
    std::vector<tk_string> parts;
    std::size_t start = 0;
    for (std::size_t slash = 0; slash != tk_string::npos; start = slash + 1) {
        slash = text.find('/', start);
        parts.push_back(text.substr(start, slash - start));
    }
    return parts;
}

// Below "<N>/IPv6/Addresses", "<name>/Address/Value" and "<name>/Type/Value" are mirrored, for any
// name.
bool is_mirrored_address_leaf(const tk_string &path, const std::vector<tk_string> &parts) {
    if (parts.size() < 5) {
        log_info_at(2, "Bad addrlist index tail: '%s'", path.c_str());
        return false;
    }
    if (parts.size() < 6) {
        log_info_at(2, "Bad addrlist subpath: '%s'", path.c_str());
        return false;
    }
    const tk_string leaf_node = "/" + parts[4];
    if (parts.size() > 6 || "/" + parts[5] != paths::value_part) {
        log_info_at(2, "Ignoring TAV update to non-value attribute '%s'", path.c_str());
        return false;
    }
    if (leaf_node != paths::address_part && leaf_node != paths::type_part) {
        log_info_at(2, "Ignoring unknown sub-address path '%s'", leaf_node.c_str());
        return false;
    }
    return true;
}

bool is_mirrored_leaf(const tk_string &path) {
    const tk_string prefix = tk_string(paths::interfaces) + "/";
    if (path.compare(0, prefix.size(), prefix) != 0) {
        log_warning_at(1, "Unexpected event path: '%s'", path.c_str());
        return false;
    }
    const std::vector<tk_string> parts = split(path.substr(prefix.size()));
    if (parts.size() < 2 || parts[0].empty()) {
        log_info_at(2, "Bad interface path component: '%s'", path.c_str());
        return false;
    }
    if (positive_number(parts[0]) == 0) {
        log_info_at(2, "Bad interface number: '%s'", parts[0].c_str());
        return false;
    }
    if (parts.size() < 3 || "/" + parts[1] != paths::ipv6_part) {
        log_info_at(4, "Ignoring update to non-IPv6 settings");
        return false;
    }
    if (parts.size() < 4) {
        log_info_at(2, "Bad subpath component: '%s'", path.c_str());
        return false;
    }
    const tk_string subpath = "/" + parts[2];
    if (subpath == paths::addresses_part) {
        return is_mirrored_address_leaf(path, parts);
    }
    if (subpath != paths::gateway_part) {
        log_info_at(2, "Ignoring TAV update to unknown node '%s'", subpath.c_str());
        return false;
    }
    if (parts.size() > 4 || "/" + parts[3] != paths::value_part) {
        log_info_at(2, "Ignoring TAV update to non-value attribute '%s'", path.c_str());
        return false;
    }
    return true;
}

} // namespace

void CSync::handle_tav_update() {
    log_info_at(4, "New TAV event arrived");
    if (state != state_normal) {
        return; // the store's client keeps the events; discovery ends with a full read anyway
    }
    std::vector<toolkit::CEvent> events;
    if (tav->events_get(events) <= 0) {
        throw sync_err(
            error_text("%s: events_get() returned an error", "void CSync::handle_tav_update()"));
    }
    bool changed = false;
    for (const toolkit::CEvent &event : events) {
        if (event.command == tav_value::command_notice) {
            continue;
        }
        log_info_at(3, "Processing TAV event: cmd = %d, path = '%s'", event.command,
                    event.path.c_str());
        if (is_mirrored_leaf(event.path)) {
            changed = true;
        }
    }
    if (changed) {
        sync_all();
    }
}
