#include "harness/store.h"

#include <cstdlib>
#include <stdexcept>

namespace kt {

namespace paths {
std::string ipv6(int interface) {
    return interfaces + "/" + std::to_string(interface) + "/IPv6";
}
std::string gateway(int interface) {
    return ipv6(interface) + "/Default Gateway/Value";
}
std::string addresses(int interface) {
    return ipv6(interface) + "/Addresses";
}
std::string address(int interface, const std::string &node) {
    return addresses(interface) + "/" + node;
}
std::string address_value(int interface, const std::string &node) {
    return address(interface, node) + "/Address/Value";
}
std::string type_value(int interface, const std::string &node) {
    return address(interface, node) + "/Type/Value";
}
} // namespace paths

namespace {

// The test's own calls may be slow on a loaded machine; the library reads both variables when it
// connects. The processes under test do not inherit them.
mlr_client_t *connect_patiently(const std::string &socket_path) {
    setenv("TAV_SOCKET", socket_path.c_str(), 1);
    setenv("TAV_TIMEOUT_MS", "60000", 1);
    mlr_client_t *connection = mlr_init();
    unsetenv("TAV_TIMEOUT_MS");
    unsetenv("TAV_SOCKET");
    return connection;
}

} // namespace

Service::Service(Sandbox &owner, Keep what)
    : sandbox(owner), keep(what), socket_path(owner.directory() + "/tav.sock") {}

void Service::start(const std::string &fault_plan, const std::vector<std::string> &more) {
    spawn_options_t options;
    if (!fault_plan.empty()) {
        options.environment["TAVD_FAULT"] = fault_plan;
    }
    std::vector<std::string> arguments{program(fault_plan.empty() ? "TAVD" : "TAVD_FAULTY"),
                                       "--socket", socket_path, "--initial-node",
                                       paths::interfaces};
    if (keep == Keep::memory) {
        arguments.emplace_back("--memory");
    } else {
        arguments.emplace_back("--database");
        arguments.push_back(sandbox.directory() + "/tav.db");
    }
    arguments.insert(arguments.end(), more.begin(), more.end());
    process = std::make_unique<Process>(sandbox, arguments, options);
    Store probe(socket_path);
    if (!eventually([&] { return !process->running() || probe.reachable(); }) ||
        !process->running()) {
        throw std::runtime_error("tavd does not serve:\n" + process->errors().tail(20));
    }
}

void Service::stop() {
    process->signal(SIGTERM);
    if (process->wait_exit() != 0) {
        throw std::runtime_error("tavd did not end with status 0");
    }
    process.reset();
}

void Service::crash() {
    process->signal(SIGKILL);
    process->wait();
    process.reset();
}

Store::Store(std::string socket) : socket_path(std::move(socket)) {}

Store::~Store() {
    disconnect();
}

void Store::disconnect() {
    if (connection != nullptr) {
        mlr_close(connection);
        connection = nullptr;
    }
}

toolkit::CTav &Store::client() {
    if (connection == nullptr) {
        connection = connect_patiently(socket_path);
        if (connection == nullptr) {
            throw std::runtime_error("no connection to the store");
        }
        tav = toolkit::CTav(connection);
    }
    return tav;
}

bool Store::reachable() {
    mlr_client_t *probe = connect_patiently(socket_path);
    if (probe == nullptr) {
        return false;
    }
    toolkit::CTav probing(probe);
    api_status_t status = api_status_none;
    std::vector<toolkit::child_t> children;
    const bool answered = probing.list_node("/", status, children) == 0;
    mlr_close(probe);
    return answered;
}

namespace {

void require(bool condition, const std::string &what) {
    if (!condition) {
        throw std::runtime_error("store: " + what);
    }
}

} // namespace

void Store::write(const pairs_t &leaves) {
    std::vector<tk_string> leaf_paths;
    std::vector<toolkit::CElement> values;
    for (const auto &leaf : leaves) {
        leaf_paths.push_back(leaf.first);
        values.emplace_back(leaf.second, toolkit::CElement::_invalid_time);
    }
    const std::vector<mlr_tribool_t> flags(leaves.size(), mlr_tribool_unset);
    std::vector<api_status_t> statuses;
    require(client().set_leaves(leaf_paths, values, flags, statuses, "") == 0, "set_leaves failed");
    for (std::size_t i = 0; i < leaves.size(); ++i) {
        require(statuses[i] == api_status_ok,
                leaf_paths[i] + " has status " + std::to_string(statuses[i]));
    }
}

void Store::write_typed(const std::string &path, element_type_t type, const std::string &text) {
    api_status_t status = api_status_none;
    require(client().set_leaf(path, toolkit::CElement(type, text, toolkit::CElement::_invalid_time),
                              status, mlr_tribool_unset, "") == 0,
            "set_leaf failed");
    require(status == api_status_ok, path + " has status " + std::to_string(status));
}

api_status_t Store::try_write(const std::string &path, const std::string &text) {
    api_status_t status = api_status_none;
    require(client().set_leaf(path, toolkit::CElement(text, toolkit::CElement::_invalid_time),
                              status, mlr_tribool_unset, "") == 0,
            "set_leaf failed");
    return status;
}

api_status_t Store::try_remove(const std::string &path) {
    api_status_t status = api_status_none;
    require(client().remove_node(path, status, "") == 0, "remove_node failed");
    return status;
}

void Store::remove(const std::string &path) {
    const api_status_t status = try_remove(path);
    require(status == api_status_ok, "removing " + path + " gave status " + std::to_string(status));
}

std::optional<std::string> Store::read(const std::string &path) {
    api_status_t status = api_status_none;
    toolkit::CElement value;
    element_property_t property = element_property_none;
    require(client().get_leaf(path, status, value, property) == 0, "get_leaf failed");
    if (status != api_status_ok) {
        return std::nullopt;
    }
    return value.to_string();
}

std::vector<toolkit::child_t> Store::list(const std::string &path) {
    api_status_t status = api_status_none;
    std::vector<toolkit::child_t> children;
    require(client().list_node(path, status, children) == 0, "list_node failed");
    return status == api_status_ok ? children : std::vector<toolkit::child_t>{};
}

void Store::make_interface(int interface) {
    write(paths::interfaces + "/" + std::to_string(interface) + "/Label", "test");
}

void Store::set_address(int interface, const std::string &node, const std::string &address,
                        const std::string &type) {
    write({{paths::address_value(interface, node), address},
           {paths::type_value(interface, node), type}});
}

void Store::remove_address(int interface, const std::string &node) {
    remove(paths::address(interface, node));
}

std::vector<stored_address_t> Store::addresses(int interface) {
    std::vector<stored_address_t> found;
    for (const auto &child : list(paths::addresses(interface))) {
        if (child.second.first == element_type_node) {
            found.push_back({child.first,
                             read(paths::address_value(interface, child.first)).value_or(""),
                             read(paths::type_value(interface, child.first)).value_or("")});
        }
    }
    return found;
}

bool Store::has_address(int interface, const std::string &address, const std::string &type) {
    for (const auto &stored : addresses(interface)) {
        if (stored.address == address && stored.type == type) {
            return true;
        }
    }
    return false;
}

std::string Store::node_of(int interface, const std::string &address) {
    for (const auto &stored : addresses(interface)) {
        if (stored.address == address) {
            return stored.node;
        }
    }
    return {};
}

void Store::set_gateway(int interface, const std::string &gateway) {
    write(paths::gateway(interface), gateway);
}

void Store::remove_gateway(int interface) {
    remove(paths::ipv6(interface) + "/Default Gateway");
}

std::optional<std::string> Store::gateway(int interface) {
    return read(paths::gateway(interface));
}

std::string Store::dump() {
    std::string text;
    dump_below(paths::interfaces, text);
    return text;
}

void Store::dump_below(const std::string &path, std::string &text) {
    for (const auto &child : list(path)) {
        const std::string child_path = path + "/" + child.first;
        if (child_path == mark_path) {
            continue;
        }
        text += child_path.substr(paths::interfaces.size());
        if (child.second.first == element_type_node) {
            text += "/\n";
            dump_below(child_path, text);
            continue;
        }
        text += " (" + std::to_string(child.second.first) +
                ") = " + read(child_path).value_or("?") + "\n";
    }
}

} // namespace kt
