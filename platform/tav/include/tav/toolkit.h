// The operations of the TAV settings store's client interface.
//
// The store is a tree. A path is "/" followed by names separated by single "/"; names are
// case-sensitive. Inner elements are nodes, the others are leaves with a typed value.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <tav/mlr.h>

// The owned byte string of the toolkit.
using tk_string = std::string;

namespace toolkit {

// The value of one leaf: a type, the value as text, and a time stamp.
class CElement {
public:
    // The time of an element without a time stamp.
    static constexpr std::int64_t _invalid_time = -1;

    // No value: type element_type_none and an empty text.
    CElement() = default;
    // A string element. `time`: seconds since 1970, or _invalid_time.
    CElement(tk_string text, std::int64_t time) : _text(std::move(text)), _time(time) {
        _type = element_type_string;
    }
    // An element of any leaf type; the text must be one that the type allows.
    CElement(element_type_t type, tk_string text, std::int64_t time)
        : _type(type), _text(std::move(text)), _time(time) {}

    element_type_t type() const { return _type; }
    const tk_string &to_string() const { return _text; }
    std::int64_t time() const { return _time; }

private:
    element_type_t _type = element_type_none;
    tk_string _text;
    std::int64_t _time = _invalid_time;
};

// One change event: what happened (mlr_event_...) and the full path of the leaf.
struct CEvent {
    std::int32_t command = 0;
    tk_string path;
};

// One child of a node, as list_node returns it.
using child_t = std::pair<tk_string, std::pair<element_type_t, element_property_t>>;

// The operations on one connection. The object does not own the connection: the caller of mlr_init
// calls mlr_close.
//
// Every call returns 0 on success (for events_get see there) and a negative number on failure: no
// connection, service gone, no answer in time. After a failure every later call on the same
// connection fails at once. On success an api_status_t holds the result for each path. Output
// vectors are replaced; on success they have exactly one element per path, in the order of the
// paths.
//
// The last argument of the writes and removals is reserved; pass an empty string. The three-valued
// flag is reserved too; pass 2.
class CTav {
public:
    CTav() = default;
    explicit CTav(mlr_client_t *client) : handle(client) {}

    // The connection; null while there is none. Calls on a null connection fail.
    mlr_client_t *handle = nullptr;

    int get_leaf(const tk_string &path, api_status_t &status, CElement &value,
                 element_property_t &property);
    int get_leaves(const std::vector<tk_string> &paths, std::vector<api_status_t> &statuses,
                   std::vector<CElement> &values, std::vector<element_property_t> &properties);
    // The children of a node: numbers first, numerically, then other names bytewise.
    int list_node(const tk_string &path, api_status_t &status, std::vector<child_t> &children);

    // Writes a leaf, creating its missing parents.
    int set_leaf(const tk_string &path, const CElement &value, api_status_t &status,
                 mlr_tribool_t flag, const tk_string &reserved);
    // Writes several leaves as one transaction: all of them or none.
    int set_leaves(const std::vector<tk_string> &paths, const std::vector<CElement> &values,
                   const std::vector<mlr_tribool_t> &flags, std::vector<api_status_t> &statuses,
                   const tk_string &reserved);
    // Removes a node with everything below it.
    int remove_node(const tk_string &path, api_status_t &status, const tk_string &reserved);

    // Asks for events on every leaf at or below `path`; if `own_changes` is false, changes made
    // through this connection cause no events.
    int event_register(const tk_string &path, api_event_t event, bool own_changes,
                       api_status_t &status);
    // Replaces `events` with all pending events and returns their number, which is at least 1 (a
    // single mlr_event_notice if nothing was pending). Returns a negative number on failure, and
    // never 0.
    int events_get(std::vector<CEvent> &events);

    // Announces the caller to the service's watchdog under `name`: a ping is expected at least
    // every `period` seconds. `enabled` false withdraws the announcement.
    int watchdog_register(api_status_t &status, const tk_string &name, int period, bool enabled);
    int watchdog_ping(api_status_t &status);
};

} // namespace toolkit
