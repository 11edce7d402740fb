// A store of one interface with one Static address. Writes to it are printed on standard output.

#include <tav/toolkit.h>

#include <cstdio>
#include <map>

namespace {

const std::string root = "/Software/System Settings/Network/Interface";
const std::string addresses = root + "/1/IPv6/Addresses";
const std::map<std::string, std::string> leaves = {
    {addresses + "/kit/Address/Value", "2001:db8:77::1/64"},
    {addresses + "/kit/Type/Value", "Static"}};

} // namespace

namespace toolkit {

int CTav::get_leaf(const tk_string &path, api_status_t &status, CElement &value,
                   element_property_t &) {
    const auto found = leaves.find(path);
    status = found != leaves.end() ? kit_good : kit_missing;
    if (status == kit_good) {
        value = CElement(found->second, 0);
    }
    return 0;
}

int CTav::get_leaves(const std::vector<tk_string> &paths, std::vector<api_status_t> &statuses,
                     std::vector<CElement> &values, std::vector<element_property_t> &properties) {
    statuses.resize(paths.size());
    values.resize(paths.size());
    properties.resize(paths.size());
    for (std::size_t i = 0; i < paths.size(); ++i) {
        get_leaf(paths[i], statuses[i], values[i], properties[i]);
    }
    return 0;
}

int CTav::list_node(const tk_string &path, api_status_t &status, std::vector<child_t> &children) {
    children.clear();
    if (path == root) {
        children.push_back({"1", {kit_tree, kit_plain}});
    } else if (path == addresses) {
        children.push_back({"kit", {kit_tree, kit_plain}});
    }
    status = children.empty() ? kit_missing : kit_good;
    return 0;
}

int CTav::set_leaf(const tk_string &path, const CElement &value, api_status_t &status,
                   mlr_tribool_t, const tk_string &) {
    std::printf("set %s %s\n", path.c_str(), value.to_string().c_str());
    std::fflush(stdout);
    status = kit_good;
    return 0;
}

int CTav::set_leaves(const std::vector<tk_string> &paths, const std::vector<CElement> &values,
                     const std::vector<mlr_tribool_t> &, std::vector<api_status_t> &statuses,
                     const tk_string &) {
    statuses.resize(paths.size());
    for (std::size_t i = 0; i < paths.size(); ++i) {
        set_leaf(paths[i], values[i], statuses[i], kit_maybe, "");
    }
    return 0;
}

int CTav::remove_node(const tk_string &path, api_status_t &status, const tk_string &) {
    std::printf("remove %s\n", path.c_str());
    std::fflush(stdout);
    status = kit_good;
    return 0;
}

int CTav::event_register(const tk_string &, api_event_t, bool, api_status_t &status) {
    status = kit_good;
    return 0;
}

int CTav::events_get(std::vector<CEvent> &) {
    return -1;
}

int CTav::watchdog_register(api_status_t &status, const tk_string &, int, bool) {
    status = kit_good;
    return 0;
}

int CTav::watchdog_ping(api_status_t &status) {
    status = kit_good;
    return 0;
}

} // namespace toolkit
