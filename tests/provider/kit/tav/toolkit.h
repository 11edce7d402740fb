#pragma once

#include <string>
#include <utility>
#include <vector>

#include <tav/mlr.h>

using tk_string = std::string;

namespace toolkit {

class CElement {
public:
    enum : long { _invalid_time = -7 };

    CElement() = default;
    CElement(const tk_string &text, long) : _type(kit_text), _text(text) {}

    element_type_t type() const { return _type; }
    tk_string to_string() const { return _text; }

private:
    element_type_t _type = kit_nothing;
    tk_string _text;
};

struct CEvent {
    int command;
    tk_string path;
};

using child_t = std::pair<tk_string, std::pair<element_type_t, element_property_t>>;

class CTav {
public:
    mlr_client_t *handle = nullptr;

    int get_leaf(const tk_string &, api_status_t &, CElement &, element_property_t &);
    int get_leaves(const std::vector<tk_string> &, std::vector<api_status_t> &,
                   std::vector<CElement> &, std::vector<element_property_t> &);
    int list_node(const tk_string &, api_status_t &, std::vector<child_t> &);
    int set_leaf(const tk_string &, const CElement &, api_status_t &, mlr_tribool_t,
                 const tk_string &);
    int set_leaves(const std::vector<tk_string> &, const std::vector<CElement> &,
                   const std::vector<mlr_tribool_t> &, std::vector<api_status_t> &,
                   const tk_string &);
    int remove_node(const tk_string &, api_status_t &, const tk_string &);
    int event_register(const tk_string &, api_event_t, bool, api_status_t &);
    int events_get(std::vector<CEvent> &);
    int watchdog_register(api_status_t &, const tk_string &, int, bool);
    int watchdog_ping(api_status_t &);
};

} // namespace toolkit
