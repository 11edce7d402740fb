// The operations of tav/toolkit.h. Each output is set to its "call failed" form first, so that a
// caller who looks at a status after a failure finds api_status_none and one element per path.
#pragma GCC visibility push(default)
#include <tav/toolkit.h>
#pragma GCC visibility pop

#include <algorithm>
#include <iterator>

#include "client/admin.h"
#include "client/calls.h"
#include "protocol/limits.h"

namespace toolkit {

using tav::call_done;
using tav::call_failed;
using tav::Connection;
using tav::connection_of;
using tav::Op;
using tav::Reader;
using tav::Writer;

namespace {

void fill(std::vector<tav::LeafAnswer> &answers, std::vector<api_status_t> &statuses,
          std::vector<CElement> &values) {
    for (std::size_t i = 0; i < answers.size(); ++i) {
        tav::Value &value = answers[i].value;
        statuses[i] = answers[i].status;
        values[i] = CElement(value.type, std::move(value.text), value.time);
    }
}

// An answer that the library gives without the service; it must not hide a lost connection.
int answered_here(const Connection &connection) {
    return connection.usable() ? call_done : call_failed;
}

} // namespace

int CTav::get_leaves(const std::vector<tk_string> &paths, std::vector<api_status_t> &statuses,
                     std::vector<CElement> &values, std::vector<element_property_t> &properties) {
    const std::size_t number = paths.size();
    statuses.assign(number, api_status_none);
    values.assign(number, CElement());
    properties.assign(number, element_property_none);
    Connection *connection = connection_of(handle);
    if (connection == nullptr) {
        return call_failed;
    }
    std::vector<tav::LeafAnswer> answers;
    if (connection->ahead.read(*connection, paths, answers)) {
        fill(answers, statuses, values);
        return call_done;
    }
    Writer request = connection->request(Op::read);
    tav::put_all(request, paths);
    if (request.too_large() || number > tav::limits::paths_per_request) {
        tav::report(tav::report_call, "a read of %zu paths is beyond the limits", number);
        statuses.assign(number, api_status_too_large);
        return answered_here(*connection);
    }
    answers.clear();
    answers.reserve(number);
    const int result = tav::perform(*connection, Op::read, request, [&](Reader &reader) {
        tav::get_exactly(reader, answers, number);
    });
    if (result != call_done) {
        return result;
    }
    fill(answers, statuses, values);
    return call_done;
}

int CTav::get_leaf(const tk_string &path, api_status_t &status, CElement &value,
                   element_property_t &property) {
    std::vector<api_status_t> statuses;
    std::vector<CElement> values;
    std::vector<element_property_t> properties;
    const int result = get_leaves({path}, statuses, values, properties);
    status = statuses.front();
    value = values.front();
    property = properties.front();
    return result;
}

int CTav::list_node(const tk_string &path, api_status_t &status, std::vector<child_t> &children) {
    status = api_status_none;
    children.clear();
    Connection *connection = connection_of(handle);
    if (connection == nullptr) {
        return call_failed;
    }
    if (path.size() > tav::limits::path_bytes) {
        status = api_status_path_too_long;
        return answered_here(*connection);
    }
    std::vector<tav::Child> listed;
    api_status_t answer = api_status_none;
    const bool known = connection->ahead.list(*connection, path, answer, listed);
    const int result = known ? call_done
                             : tav::perform_with(*connection, Op::list, std::string_view(path),
                                                 [&](Reader &reader) {
                                                     tav::get(reader, answer);
                                                     tav::get_all(reader, listed);
                                                 });
    if (result != call_done) {
        return result;
    }
    if (!known && answer == api_status_ok) {
        connection->ahead.listed(path);
    }
    status = answer;
    children.reserve(listed.size());
    for (tav::Child &child : listed) {
        children.emplace_back(std::move(child.name),
                              std::make_pair(child.type, element_property_none));
    }
    return call_done;
}

int CTav::set_leaves(const std::vector<tk_string> &paths, const std::vector<CElement> &values,
                     const std::vector<mlr_tribool_t> &flags, std::vector<api_status_t> &statuses,
                     const tk_string &reserved) {
    static_cast<void>(flags);
    static_cast<void>(reserved);
    const std::size_t number = paths.size();
    statuses.assign(number, api_status_none);
    Connection *connection = connection_of(handle);
    if (connection == nullptr) {
        return call_failed;
    }
    if (values.size() != number) {
        tav::report(tav::report_call, "set_leaves: %zu paths with %zu values", number,
                    values.size());
        statuses.assign(number, api_status_bad_value);
        return answered_here(*connection);
    }
    std::vector<tav::Item> items(number);
    for (std::size_t i = 0; i < number; ++i) {
        items[i].kind = tav::ItemKind::set;
        items[i].path = paths[i];
        items[i].value = tav::Value{values[i].type(), values[i].to_string(), values[i].time()};
    }
    return tav::transact(handle, items, statuses);
}

int CTav::set_leaf(const tk_string &path, const CElement &value, api_status_t &status,
                   mlr_tribool_t flag, const tk_string &reserved) {
    std::vector<api_status_t> statuses;
    const int result = set_leaves({path}, {value}, {flag}, statuses, reserved);
    status = statuses.front();
    return result;
}

int CTav::remove_node(const tk_string &path, api_status_t &status, const tk_string &reserved) {
    static_cast<void>(reserved);
    std::vector<api_status_t> statuses;
    const int result =
        tav::transact(handle, {tav::Item{tav::ItemKind::remove_node, path, {}}}, statuses);
    status = statuses.front();
    return result;
}

int CTav::event_register(const tk_string &path, api_event_t event, bool own_changes,
                         api_status_t &status) {
    status = api_status_none;
    Connection *connection = connection_of(handle);
    if (connection == nullptr) {
        return call_failed;
    }
    if (path.size() > tav::limits::path_bytes) {
        status = api_status_path_too_long;
        return answered_here(*connection);
    }
    const tav::Registration registration{path, static_cast<std::uint32_t>(event), own_changes};
    api_status_t answer = api_status_none;
    const int result = tav::perform_with(*connection, Op::event_register, registration,
                                         [&answer](Reader &reader) { tav::get(reader, answer); });
    if (result == call_done) {
        status = answer;
    }
    return result;
}

int CTav::events_get(std::vector<CEvent> &events) {
    events.clear();
    Connection *connection = connection_of(handle);
    if (connection == nullptr) {
        return call_failed;
    }
    Writer request = connection->request(Op::events_get);
    std::vector<tav::Event> fetched;
    const auto take_parts = [&fetched](Reader &reader) {
        std::vector<tav::Event> part;
        do {
            tav::get_all(reader, part);
            std::move(part.begin(), part.end(), std::back_inserter(fetched));
        } while (reader.ok() && !reader.finished());
    };
    const int result = tav::perform(*connection, Op::events_get, request, take_parts);
    if (result != call_done) {
        return result;
    }
    if (fetched.empty()) {
        // Nothing was pending. Report that as a notice, so that it is not mistaken for a failure.
        fetched.push_back(tav::Event{mlr_event_notice, {}});
    }
    events.reserve(fetched.size());
    for (tav::Event &event : fetched) {
        events.push_back(CEvent{event.command, std::move(event.path)});
    }
    return static_cast<int>(events.size());
}

int CTav::watchdog_register(api_status_t &status, const tk_string &name, int period, bool enabled) {
    status = api_status_none;
    Connection *connection = connection_of(handle);
    if (connection == nullptr) {
        return call_failed;
    }
    if (name.size() > tav::limits::watchdog_name_bytes) {
        status = api_status_name_too_long;
        return answered_here(*connection);
    }
    api_status_t answer = api_status_none;
    const int result = tav::perform_with(*connection, Op::watchdog_register,
                                         tav::WatchdogRequest{name, period, enabled},
                                         [&answer](Reader &reader) { tav::get(reader, answer); });
    if (result == call_done) {
        status = answer;
        connection->has_watchdog = answer == api_status_ok ? enabled : connection->has_watchdog;
    }
    return result;
}

int CTav::watchdog_ping(api_status_t &status) {
    status = api_status_none;
    Connection *connection = connection_of(handle);
    if (connection == nullptr) {
        return call_failed;
    }
    if (!connection->ping()) {
        return call_failed;
    }
    status = connection->has_watchdog ? api_status_ok : api_status_absent;
    return call_done;
}

} // namespace toolkit
