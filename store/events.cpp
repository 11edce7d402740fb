// The store's change events. Their paths are parsed to filter and to report; a synchronisation
// always covers everything.

#include "shell/log.h"
#include "store/paths.h"
#include "store/tav_values.h"
#include "sync/errors.h"
#include "sync/sync.h"

namespace {

// What is left of a path below "<N>/IPv6/Addresses/": "<name>/Address/Value" and
// "<name>/Type/Value" are mirrored.
bool is_mirrored_address_leaf(const tk_string &path, tk_string rest) {
    std::size_t slash = rest.find('/');
    if (slash == tk_string::npos) {
        log_info_at(2, "Bad addrlist index tail: '%s'", path.c_str());
        return false;
    }
    rest.erase(0, slash); // the node's name, whatever it is
    slash = rest.find('/', 1);
    if (slash == tk_string::npos) {
        log_info_at(2, "Bad addrlist subpath: '%s'", path.c_str());
        return false;
    }
    const tk_string leaf_node = rest.substr(0, slash);
    rest.erase(0, slash);
    if (rest != paths::value_part) {
        log_info_at(2, "Ignoring TAV update to non-value attribute '%s'", path.c_str());
        return false;
    }
    if (leaf_node != paths::address_part && leaf_node != paths::type_part) {
        log_info_at(2, "Ignoring unknown sub-address path '%s'", leaf_node.c_str());
        return false;
    }
    return true;
}

// What is left of a path below "<N>/IPv6", beginning with "/".
bool is_mirrored_ipv6_leaf(const tk_string &path, tk_string rest) {
    const std::size_t slash = rest.find('/', 1);
    if (slash == tk_string::npos) {
        log_info_at(2, "Bad subpath component: '%s'", path.c_str());
        return false;
    }
    const tk_string subpath = rest.substr(0, slash);
    rest.erase(0, slash);
    if (subpath == paths::gateway_part) {
        if (rest == paths::value_part) {
            return true;
        }
        log_info_at(2, "Ignoring TAV update to non-value attribute '%s'", path.c_str());
        return false;
    }
    if (subpath != paths::addresses_part) {
        log_info_at(2, "Ignoring TAV update to unknown node '%s'", subpath.c_str());
        return false;
    }
    return is_mirrored_address_leaf(path, rest.substr(1));
}

bool is_mirrored_leaf(const tk_string &path) {
    const tk_string prefix = tk_string(paths::interfaces) + "/";
    if (path.compare(0, prefix.size(), prefix) != 0) {
        log_warning_at(1, "Unexpected event path: '%s'", path.c_str());
        return false;
    }
    tk_string rest = path.substr(prefix.size());
    std::size_t slash = rest.find('/');
    if (slash == tk_string::npos || slash == 0) {
        log_info_at(2, "Bad interface path component: '%s'", path.c_str());
        return false;
    }
    const tk_string number = rest.substr(0, slash);
    if (positive_number(number) == 0) {
        log_info_at(2, "Bad interface number: '%s'", number.c_str());
        return false;
    }
    rest.erase(0, slash);
    slash = rest.find('/', 1);
    if (slash == tk_string::npos || rest.compare(0, slash, paths::ipv6_part) != 0) {
        log_info_at(4, "Ignoring update to non-IPv6 settings");
        return false;
    }
    rest.erase(0, slash);
    return is_mirrored_ipv6_leaf(path, rest);
}

} // namespace

void CSync::handle_tav_update() {
    log_info_at(4, "New TAV event arrived");
    if (state != state_normal) {
        return; // the events stay with the store's client; discovery ends in a full read anyway
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
