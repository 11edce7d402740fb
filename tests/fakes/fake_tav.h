// The settings store's client library as the daemon uses it, over a tree in memory. Every call is
// entered in the journal and kept with its arguments; any call can be made to return another
// result.
//
// In the journal: "mlr_init()", "mlr_close()", "get_leaf(<path>)", "get_leaves(<path>, <path>)",
// "list_node(<path>)", "set_leaf(<path> = <text>)", "set_leaves(<path> = <text>, ...)",
// "remove_node(<path>)", "event_register(<path>, <event>, <own changes>)", "events_get()",
// "watchdog_register(<name>, <period>, <enabled>)", "watchdog_ping()". mlr_get_fd is not entered.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include <boost/optional.hpp>

#include <tav/mlr.h>
#include <tav/toolkit.h>

namespace fake_tav {

// One call of a CTav member with its input arguments. Fields that the operation does not have are
// empty.
struct call_t {
    std::string operation; // "set_leaf", ...
    std::vector<tk_string> paths;
    std::vector<toolkit::CElement> values;
    std::vector<mlr_tribool_t> flags;
    tk_string reserved;
    mlr_client_t *client = nullptr;
};

// What a call does instead of its work.
class injection_t {
public:
    // The call returns this result and has no effect. Unless statuses are prepared as well, it does
    // not change its outputs. events_get with a result above 0 still delivers the pending events.
    injection_t &returns(int result);
    // The call gives these statuses, one for each path (the last one also for all further paths),
    // and has no effect; its result is 0 unless returns() sets another one.
    injection_t &statuses(std::vector<int> values);
    // With injected statuses of a read: its values are this element, for any status.
    injection_t &fills(toolkit::CElement value);
    // With injected statuses of a listing: its children, for any status.
    injection_t &lists(std::vector<toolkit::child_t> children);
    // The call does its work, and then the vector of statuses, or of values, is cut to at most this
    // many items.
    injection_t &shortens_statuses(std::size_t items);
    injection_t &shortens_values(std::size_t items);
    // Runs before the call; may throw, or change the tree. Without other injections the call then
    // does its work.
    injection_t &runs(std::function<void()> action);

    bool replaces() const { return result || !status_values.empty(); }
    void run() const;
    int value() const { return result ? *result : 0; }
    bool has_statuses() const { return !status_values.empty(); }
    api_status_t status(std::size_t i) const;
    const boost::optional<toolkit::CElement> &filling() const { return element; }
    const std::vector<toolkit::child_t> &listing() const { return listed; }
    std::size_t most_statuses() const { return status_limit; }
    std::size_t most_values() const { return value_limit; }

private:
    static constexpr std::size_t no_limit = static_cast<std::size_t>(-1);

    boost::optional<int> result;
    std::vector<int> status_values;
    boost::optional<toolkit::CElement> element;
    std::vector<toolkit::child_t> listed;
    std::size_t status_limit = no_limit, value_limit = no_limit;
    std::function<void()> before;
};

// Applies only to the n-th call of the operation from now on.
injection_t &on_call(const std::string &operation, unsigned n = 1);
// Applies to every call of the operation that names the path.
injection_t &on_path(const std::string &operation, const tk_string &path);

struct state_t {
    // The result of mlr_get_fd.
    int fd = 60;
    // Whether a call on a null connection is allowed; otherwise it fails the test.
    bool null_client_allowed = false;

    // Set to make the next calls of mlr_init return null (the count goes down with each).
    unsigned failing_inits = 0;
    unsigned clients_opened = 0, clients_closed = 0;
    std::vector<call_t> calls;
};

state_t &state();

// The calls of one operation, in order.
std::vector<call_t> calls(const std::string &operation);
// The number of calls that wrote to the tree or tried to: set_leaf, set_leaves, remove_node.
std::size_t writes();
void forget_calls();

// The tree. At the start of a test it has the empty node "/Software/System
// Settings/Network/Interface". Children are listed in the order of their creation, so that a test
// can choose it. These functions are not recorded as calls of the daemon.
void put_node(const tk_string &path);                            // with its parents
void put(const tk_string &path, const tk_string &text);          // a string leaf, with its parents
void put(const tk_string &path, const toolkit::CElement &value); // any leaf
void erase(const tk_string &path);                               // with everything below it
bool exists(const tk_string &path);
// The names of a node's children; empty if there is no such node.
std::vector<tk_string> children(const tk_string &path);
// The text of a leaf; "(absent)" when there is no such leaf.
tk_string text(const tk_string &path);
// Every leaf as "<path> = <text>" and every node without children as "<path>/", in listing order.
std::vector<std::string> dump();

// Adds a change event for events_get. Without waiting events, events_get returns one of command 1.
void queue_event(int command, const tk_string &path);
std::size_t pending_events();

} // namespace fake_tav
