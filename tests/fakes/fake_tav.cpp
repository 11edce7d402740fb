#include "fakes/fake_tav.h"

#include <algorithm>
#include <map>
#include <memory>
#include <set>
#include <utility>

#include <gtest/gtest.h>

#include "fakes/fake_memory.h"
#include "fakes/fake_tav_tree.h"
#include "fakes/log_capture.h"

// This fake's definition of the library's opaque connection.
struct mlr_client {
    unsigned number;
};

// Invalid content for outputs that a reader must not use.
constexpr auto odd_property = static_cast<element_property_t>(7);

namespace fake_tav {
namespace {

using toolkit::CElement;

struct scheduled_t {
    std::string operation;
    unsigned calls_left;
    tk_string path; // instead of a number of calls, when not empty
    std::unique_ptr<injection_t> injection;
};

// State between two calls, in addition to the part that tests see.
struct inside_t {
    tree_t tree;
    std::vector<scheduled_t> schedule;
    std::vector<toolkit::CEvent> events;
    std::map<const mlr_client_t *, std::unique_ptr<mlr_client_t>> clients;
};

inside_t &inside() {
    static inside_t instance;
    return instance;
}

void reset() {
    inside() = inside_t{};
    state() = state_t{};
    put_node("/Software/System Settings/Network/Interface");
}
const fakes::reset_hook hook(&reset);

std::string joined(const call_t &call) {
    std::string text;
    for (std::size_t i = 0; i < call.paths.size(); ++i) {
        text += (i > 0 ? ", " : "") + call.paths[i];
        if (i < call.values.size()) {
            text += " = " + call.values[i].to_string();
        }
    }
    return text;
}

// Takes the oldest injection for this call, if there is one.
std::unique_ptr<injection_t> due(const call_t &call) {
    std::unique_ptr<injection_t> found;
    auto &schedule = inside().schedule;
    for (auto it = schedule.begin(); it != schedule.end();) {
        if (it->operation == call.operation && it->path.empty() && --it->calls_left == 0) {
            EXPECT_EQ(found, nullptr) << "two injections for one call of " << call.operation;
            found = std::move(it->injection);
            it = schedule.erase(it);
            continue;
        }
        const auto &paths = call.paths;
        if (it->operation == call.operation && !it->path.empty() && found == nullptr &&
            std::find(paths.begin(), paths.end(), it->path) != paths.end()) {
            found = std::make_unique<injection_t>(*it->injection);
        }
        ++it;
    }
    return found;
}

// One call in progress: records it and keeps the injection that replaces its work.
class arrival_t {
public:
    explicit arrival_t(const call_t &call, const std::string &arguments = "") {
        journal::add(call.operation + "(" + (arguments.empty() ? joined(call) : arguments) + ")");
        EXPECT_TRUE(inside().clients.count(call.client) == 1 ||
                    (call.client == nullptr && state().null_client_allowed))
            << call.operation << " on a connection that is not open";
        state().calls.push_back(call);
        injection = due(call);
        if (injection != nullptr) {
            injection->run();
        }
    }

    bool replaced() const { return injection != nullptr && injection->replaces(); }
    int result() const { return injection->value(); }
    void give(api_status_t &status) const {
        if (injection->has_statuses()) {
            status = injection->status(0);
        }
    }
    // True if the outputs must have one element for each path.
    bool give(std::vector<api_status_t> &statuses, std::size_t paths) const {
        if (!injection->has_statuses()) {
            return false;
        }
        statuses.clear();
        for (std::size_t i = 0; i < paths; ++i) {
            statuses.push_back(injection->status(i));
        }
        return true;
    }
    // The element for a value that the call has no reason to return.
    void fill(CElement &value) const { value = injection->filling().get_value_or(value); }
    void fill(std::vector<toolkit::child_t> &children) const {
        children.insert(children.end(), injection->listing().begin(), injection->listing().end());
    }
    void shorten(std::vector<api_status_t> &statuses) const {
        if (injection != nullptr) {
            shorten(statuses, injection->most_statuses());
        }
    }
    void shorten(std::vector<CElement> &values) const {
        if (injection != nullptr) {
            shorten(values, injection->most_values());
        }
    }

private:
    // Copies to memory of the exact size, so that the address sanitizer reports each read beyond
    // the end.
    template <typename Item>
    static void shorten(std::vector<Item> &items, std::size_t most) {
        if (items.size() > most) {
            const auto end = items.begin() + static_cast<std::ptrdiff_t>(most);
            std::vector<Item>(items.begin(), end).swap(items);
        }
    }

    std::unique_ptr<injection_t> injection;
};

} // namespace

state_t &state() {
    static state_t instance;
    return instance;
}

injection_t &injection_t::returns(int value) {
    result = value;
    return *this;
}

injection_t &injection_t::statuses(std::vector<int> values) {
    status_values = std::move(values);
    return *this;
}

injection_t &injection_t::fills(CElement value) {
    element = std::move(value);
    return *this;
}

injection_t &injection_t::lists(std::vector<toolkit::child_t> children) {
    listed = std::move(children);
    return *this;
}

injection_t &injection_t::shortens_statuses(std::size_t items) {
    status_limit = items;
    return *this;
}

injection_t &injection_t::shortens_values(std::size_t items) {
    value_limit = items;
    return *this;
}

injection_t &injection_t::runs(std::function<void()> action) {
    before = std::move(action);
    return *this;
}

void injection_t::run() const {
    if (before) {
        before();
    }
}

api_status_t injection_t::status(std::size_t i) const {
    return static_cast<api_status_t>(status_values[std::min(i, status_values.size() - 1)]);
}

injection_t &on_call(const std::string &operation, unsigned n) {
    inside().schedule.push_back({operation, n, "", std::make_unique<injection_t>()});
    return *inside().schedule.back().injection;
}

injection_t &on_path(const std::string &operation, const tk_string &path) {
    inside().schedule.push_back({operation, 0, path, std::make_unique<injection_t>()});
    return *inside().schedule.back().injection;
}

std::vector<call_t> calls(const std::string &operation) {
    std::vector<call_t> found;
    for (const auto &call : state().calls) {
        if (call.operation == operation) {
            found.push_back(call);
        }
    }
    return found;
}

std::size_t writes() {
    return calls("set_leaf").size() + calls("set_leaves").size() + calls("remove_node").size();
}

void forget_calls() {
    state().calls.clear();
}

void put_node(const tk_string &path) {
    EXPECT_NE(inside().tree.make(path), nullptr) << path;
}

void put(const tk_string &path, const tk_string &text) {
    put(path, CElement(text, CElement::_invalid_time));
}

void put(const tk_string &path, const CElement &value) {
    EXPECT_TRUE(inside().tree.make_leaf(path, value)) << path;
}

void erase(const tk_string &path) {
    EXPECT_EQ(inside().tree.remove(path), api_status_ok) << path;
}

bool exists(const tk_string &path) {
    return inside().tree.find(path) != nullptr;
}

std::vector<tk_string> children(const tk_string &path) {
    std::vector<tk_string> names;
    if (const element_t *node = inside().tree.find(path)) {
        for (const auto &child : node->children) {
            names.push_back(child->name);
        }
    }
    return names;
}

tk_string text(const tk_string &path) {
    CElement value;
    return inside().tree.read_leaf(path, value) == api_status_ok ? value.to_string() : "(absent)";
}

std::vector<std::string> dump() {
    return inside().tree.dump();
}

void queue_event(int command, const tk_string &path) {
    toolkit::CEvent event;
    event.command = command;
    event.path = path;
    inside().events.push_back(event);
}

std::size_t pending_events() {
    return inside().events.size();
}

} // namespace fake_tav

using namespace fake_tav; // NOLINT(google-build-using-namespace)

extern "C" {

mlr_client_t *mlr_init() {
    const fake_memory::spare spare;
    journal::add("mlr_init()");
    if (state().failing_inits > 0) {
        --state().failing_inits;
        return nullptr;
    }
    auto client = std::make_unique<mlr_client_t>(mlr_client_t{++state().clients_opened});
    mlr_client_t *const handle = client.get();
    inside().clients[handle] = std::move(client);
    return handle;
}

int mlr_get_fd(const mlr_client_t *client) {
    const fake_memory::spare spare;
    if (client == nullptr) {
        return -1;
    }
    EXPECT_EQ(inside().clients.count(client), 1U) << "mlr_get_fd on a connection that is not open";
    return state().fd;
}

void mlr_close(mlr_client_t *client) {
    const fake_memory::spare spare;
    journal::add("mlr_close()");
    if (client == nullptr) {
        return; // as the library does
    }
    ++state().clients_closed;
    EXPECT_EQ(inside().clients.erase(client), 1U) << "mlr_close on a connection that is not open";
}

} // extern "C"

namespace toolkit {

int CTav::get_leaf(const tk_string &path, api_status_t &status, CElement &value,
                   element_property_t &property) {
    const fake_memory::spare spare;
    const arrival_t arrival({"get_leaf", {path}, {}, {}, "", handle});
    if (arrival.replaced()) {
        arrival.give(status);
        arrival.fill(value);
        return arrival.result();
    }
    value = CElement();
    property = odd_property;
    status = inside().tree.read_leaf(path, value);
    return 0;
}

int CTav::get_leaves(const std::vector<tk_string> &paths, std::vector<api_status_t> &statuses,
                     std::vector<CElement> &values, std::vector<element_property_t> &properties) {
    const fake_memory::spare spare;
    const arrival_t arrival({"get_leaves", paths, {}, {}, "", handle});
    if (arrival.replaced()) {
        if (arrival.give(statuses, paths.size())) {
            values.assign(paths.size(), CElement());
            for (CElement &value : values) {
                arrival.fill(value);
            }
            properties.assign(paths.size(), odd_property);
        }
        return arrival.result();
    }
    statuses.assign(paths.size(), api_status_none);
    values.assign(paths.size(), CElement());
    properties.assign(paths.size(), odd_property);
    for (std::size_t i = 0; i < paths.size(); ++i) {
        statuses[i] = inside().tree.read_leaf(paths[i], values[i]);
    }
    arrival.shorten(statuses);
    arrival.shorten(values);
    return 0;
}

int CTav::list_node(const tk_string &path, api_status_t &status, std::vector<child_t> &children) {
    const fake_memory::spare spare;
    const arrival_t arrival({"list_node", {path}, {}, {}, "", handle});
    if (arrival.replaced()) {
        arrival.give(status);
        arrival.fill(children);
        return arrival.result();
    }
    children.clear();
    const element_t *node = inside().tree.find(path);
    if (node == nullptr) {
        status = api_status_absent;
    } else if (!node->is_node) {
        status = api_status_wrong_kind;
    } else {
        status = api_status_ok;
        for (const auto &child : node->children) {
            const auto type = child->is_node ? element_type_node : child->value.type();
            children.push_back({child->name, {type, odd_property}});
        }
    }
    return 0;
}

int CTav::set_leaf(const tk_string &path, const CElement &value, api_status_t &status,
                   mlr_tribool_t flag, const tk_string &reserved) {
    const fake_memory::spare spare;
    const arrival_t arrival({"set_leaf", {path}, {value}, {flag}, reserved, handle});
    if (arrival.replaced()) {
        arrival.give(status);
        return arrival.result();
    }
    status = inside().tree.make_leaf(path, value) ? api_status_ok : api_status_wrong_kind;
    return 0;
}

int CTav::set_leaves(const std::vector<tk_string> &paths, const std::vector<CElement> &values,
                     const std::vector<mlr_tribool_t> &flags, std::vector<api_status_t> &statuses,
                     const tk_string &reserved) {
    const fake_memory::spare spare;
    const arrival_t arrival({"set_leaves", paths, values, flags, reserved, handle});
    EXPECT_EQ(paths.size(), values.size());
    EXPECT_EQ(paths.size(), flags.size());
    if (arrival.replaced()) {
        arrival.give(statuses, paths.size());
        return arrival.result();
    }
    statuses.assign(paths.size(), api_status_ok);
    for (std::size_t i = 0; i < paths.size() && i < values.size(); ++i) {
        if (!inside().tree.make_leaf(paths[i], values[i])) {
            statuses[i] = api_status_wrong_kind;
        }
    }
    arrival.shorten(statuses);
    return 0;
}

int CTav::remove_node(const tk_string &path, api_status_t &status, const tk_string &reserved) {
    const fake_memory::spare spare;
    const arrival_t arrival({"remove_node", {path}, {}, {}, reserved, handle});
    if (arrival.replaced()) {
        arrival.give(status);
        return arrival.result();
    }
    status = inside().tree.remove(path);
    return 0;
}

int CTav::event_register(const tk_string &path, api_event_t event, bool own_changes,
                         api_status_t &status) {
    const fake_memory::spare spare;
    const arrival_t arrival({"event_register", {path}, {}, {}, "", handle},
                            path + ", " + std::to_string(event) + ", " +
                                (own_changes ? "true" : "false"));
    if (arrival.replaced()) {
        arrival.give(status);
        return arrival.result();
    }
    status = api_status_ok;
    return 0;
}

int CTav::events_get(std::vector<CEvent> &events) {
    const fake_memory::spare spare;
    const arrival_t arrival({"events_get", {}, {}, {}, "", handle});
    EXPECT_TRUE(events.empty()) << "events_get into a vector that holds events";
    if (arrival.replaced() && arrival.result() <= 0) {
        return arrival.result();
    }
    events = std::move(inside().events);
    inside().events.clear();
    if (events.empty()) {
        CEvent notice;
        notice.command = mlr_event_notice;
        events.push_back(notice);
    }
    return arrival.replaced() ? arrival.result() : static_cast<int>(events.size());
}

int CTav::watchdog_register(api_status_t &status, const tk_string &name, int period, bool enabled) {
    const fake_memory::spare spare;
    const arrival_t arrival({"watchdog_register", {}, {}, {}, "", handle},
                            name + ", " + std::to_string(period) + ", " +
                                (enabled ? "true" : "false"));
    if (arrival.replaced()) {
        arrival.give(status);
        return arrival.result();
    }
    status = api_status_ok;
    return 0;
}

int CTav::watchdog_ping(api_status_t &status) {
    const fake_memory::spare spare;
    const arrival_t arrival({"watchdog_ping", {}, {}, {}, "", handle});
    if (arrival.replaced()) {
        arrival.give(status);
        return arrival.result();
    }
    status = api_status_ok;
    return 0;
}

} // namespace toolkit
