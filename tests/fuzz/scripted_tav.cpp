#include "fuzz/scripted_tav.h"

#include "fuzz/fuzz.h"

namespace scripted_tav {

std::deque<answer_t> &script() {
    static std::deque<answer_t> answers;
    return answers;
}

namespace {

answer_t next(const char *operation, const std::vector<tk_string> &paths) {
    fuzz::require(!script().empty(), "a call too many");
    answer_t answer = std::move(script().front());
    script().pop_front();
    fuzz::require_same(operation, answer.operation, "another call");
    fuzz::require(paths == answer.paths, "another path");
    return answer;
}

// The calls that the readers do not make.
int unexpected() {
    fuzz::require(false, "a call that reading has no reason for");
    return -1;
}

} // namespace

} // namespace scripted_tav

using scripted_tav::answer_t;
using scripted_tav::next;
using scripted_tav::unexpected;

extern "C" {
mlr_client_t *mlr_init() {
    return nullptr;
}
int mlr_get_fd(const mlr_client_t *) {
    return -1;
}
void mlr_close(mlr_client_t *) {}
}

namespace toolkit {

int CTav::get_leaf(const tk_string &path, api_status_t &status, CElement &value,
                   element_property_t &) {
    const answer_t answer = next("get_leaf", {path});
    if (answer.result == 0) {
        status = answer.statuses.at(0);
        value = answer.values.at(0);
    }
    return answer.result;
}

int CTav::get_leaves(const std::vector<tk_string> &paths, std::vector<api_status_t> &statuses,
                     std::vector<CElement> &values, std::vector<element_property_t> &properties) {
    const answer_t answer = next("get_leaves", paths);
    if (answer.result == 0) {
        statuses = answer.statuses;
        values = answer.values;
        properties.assign(values.size(), element_property_none);
    }
    return answer.result;
}

int CTav::list_node(const tk_string &path, api_status_t &status, std::vector<child_t> &children) {
    const answer_t answer = next("list_node", {path});
    if (answer.result == 0) {
        status = answer.statuses.at(0);
        children = answer.children;
    }
    return answer.result;
}

int CTav::set_leaf(const tk_string &, const CElement &, api_status_t &, mlr_tribool_t,
                   const tk_string &) {
    return unexpected();
}
int CTav::set_leaves(const std::vector<tk_string> &, const std::vector<CElement> &,
                     const std::vector<mlr_tribool_t> &, std::vector<api_status_t> &,
                     const tk_string &) {
    return unexpected();
}
int CTav::remove_node(const tk_string &, api_status_t &, const tk_string &) {
    return unexpected();
}
int CTav::event_register(const tk_string &, api_event_t, bool, api_status_t &) {
    return unexpected();
}
int CTav::events_get(std::vector<CEvent> &) {
    return unexpected();
}
int CTav::watchdog_register(api_status_t &, const tk_string &, int, bool) {
    return unexpected();
}
int CTav::watchdog_ping(api_status_t &) {
    return unexpected();
}

} // namespace toolkit
