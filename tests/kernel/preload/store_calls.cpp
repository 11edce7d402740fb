// Preloaded before the store's client library, makes single calls fail, as those of another library
// may: the call returns a number, and the connection still works. KT_CALL_FAULT is the plan (see
// faults/plan.h), whose mode is "fail"; a call that fails may nevertheless have been carried out,
// and has then filled its outputs. KT_CRASH_ON=<operation> makes the process access invalid memory
// in the first such call.
#include <cstdio>
#include <cstdlib>
#include <optional>

#include <tav/toolkit.h>

#include "faults/plan.h"
#include "support/preload/next_function.h"

namespace {

using faults::Operation;

std::optional<faults::Plan> &plan() {
    static const char *const text = std::getenv("KT_CALL_FAULT");
    static std::optional<faults::Plan> plan =
        text != nullptr ? std::optional<faults::Plan>(text) : std::nullopt;
    return plan;
}

void crash_if_told(Operation operation) {
    static const char *const on = std::getenv("KT_CRASH_ON");
    if (on != nullptr && std::strcmp(on, faults::name_of(operation)) == 0) {
        volatile int *volatile nowhere = nullptr;
        *nowhere = 1;
    }
}

// The library's calls may use one another; only the program's own calls are affected.
bool inside = false;

// Calls the library's own member function, unless the plan requires a failure. `name` is its
// symbol.
template <typename... Arguments>
int call(Operation operation, const char *name, toolkit::CTav *client, Arguments &&...arguments) {
    using function_t = int (*)(toolkit::CTav *, Arguments...);
    crash_if_told(operation);
    const bool fails = !inside && plan() && plan()->strikes(operation);
    int result = 0;
    if (!fails || !plan()->undone()) {
        const auto function = next_function<function_t>(name);
        const bool before = inside;
        inside = true;
        result = function(client, std::forward<Arguments>(arguments)...);
        inside = before;
    }
    if (fails) {
        std::fprintf(stderr, "fault: fail on %s\n", faults::name_of(operation));
        result = plan()->result();
    }
    return result;
}

} // namespace

#define TEXT "NSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE"

namespace toolkit {

int CTav::get_leaf(const tk_string &path, api_status_t &status, CElement &value,
                   element_property_t &property) {
    return call<const tk_string &, api_status_t &, CElement &, element_property_t &>(
        Operation::read,
        "_ZN7toolkit4CTav8get_leafERK" TEXT "R12api_status_tRNS_8CElementER18element_property_t",
        this, path, status, value, property);
}

int CTav::get_leaves(const std::vector<tk_string> &paths, std::vector<api_status_t> &statuses,
                     std::vector<CElement> &values, std::vector<element_property_t> &properties) {
    return call<const std::vector<tk_string> &, std::vector<api_status_t> &,
                std::vector<CElement> &, std::vector<element_property_t> &>(
        Operation::read,
        "_ZN7toolkit4CTav10get_leavesERKSt6vectorI" TEXT
        "SaIS7_EERS1_I12api_status_tSaISC_EERS1_INS_8CElementESaISG_EE"
        "RS1_I18element_property_tSaISK_EE",
        this, paths, statuses, values, properties);
}

int CTav::list_node(const tk_string &path, api_status_t &status, std::vector<child_t> &children) {
    return call<const tk_string &, api_status_t &, std::vector<child_t> &>(
        Operation::list,
        "_ZN7toolkit4CTav9list_nodeERK" TEXT "R12api_status_tRSt6vectorISt4pairIS6_SC_I"
        "14element_type_t18element_property_tEESaISG_EE",
        this, path, status, children);
}

int CTav::set_leaf(const tk_string &path, const CElement &value, api_status_t &status,
                   mlr_tribool_t flag, const tk_string &reserved) {
    return call<const tk_string &, const CElement &, api_status_t &, mlr_tribool_t,
                const tk_string &>(Operation::write,
                                   "_ZN7toolkit4CTav8set_leafERK" TEXT
                                   "RKNS_8CElementER12api_status_t13mlr_tribool_tS8_",
                                   this, path, value, status, std::move(flag), reserved);
}

int CTav::set_leaves(const std::vector<tk_string> &paths, const std::vector<CElement> &values,
                     const std::vector<mlr_tribool_t> &flags, std::vector<api_status_t> &statuses,
                     const tk_string &reserved) {
    return call<const std::vector<tk_string> &, const std::vector<CElement> &,
                const std::vector<mlr_tribool_t> &, std::vector<api_status_t> &, const tk_string &>(
        Operation::write,
        "_ZN7toolkit4CTav10set_leavesERKSt6vectorI" TEXT
        "SaIS7_EERKS1_INS_8CElementESaISC_EERKS1_I13mlr_tribool_tSaISH_EE"
        "RS1_I12api_status_tSaISM_EERKS7_",
        this, paths, values, flags, statuses, reserved);
}

int CTav::remove_node(const tk_string &path, api_status_t &status, const tk_string &reserved) {
    return call<const tk_string &, api_status_t &, const tk_string &>(
        Operation::remove, "_ZN7toolkit4CTav11remove_nodeERK" TEXT "R12api_status_tS8_", this, path,
        status, reserved);
}

int CTav::event_register(const tk_string &path, api_event_t event, bool own_changes,
                         api_status_t &status) {
    return call<const tk_string &, api_event_t, bool, api_status_t &>(
        Operation::enlist,
        "_ZN7toolkit4CTav14event_registerERK" TEXT "11api_event_tbR12api_status_t", this, path,
        std::move(event), std::move(own_changes), status);
}

int CTav::events_get(std::vector<CEvent> &events) {
    return call<std::vector<CEvent> &>(
        Operation::events, "_ZN7toolkit4CTav10events_getERSt6vectorINS_6CEventESaIS2_EE", this,
        events);
}

int CTav::watchdog_register(api_status_t &status, const tk_string &name, int period, bool enabled) {
    return call<api_status_t &, const tk_string &, int, bool>(
        Operation::watchdog, "_ZN7toolkit4CTav17watchdog_registerER12api_status_tRK" TEXT "ib",
        this, status, name, std::move(period), std::move(enabled));
}

int CTav::watchdog_ping(api_status_t &status) {
    return call<api_status_t &>(Operation::ping, "_ZN7toolkit4CTav13watchdog_pingER12api_status_t",
                                this, status);
}

} // namespace toolkit
