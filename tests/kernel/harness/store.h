// The settings store as the tests use it: its service as a process, and a client of their own.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <tav/toolkit.h>

#include "harness/process.h"

namespace kt {

// tavd. Started by `start`, ended at the latest with the object.
class Service {
public:
    enum class Keep { memory, database };

    Service(Sandbox &sandbox, Keep keep);
    // Returns once the service answers. With a plan (see faults/plan.h) it is the service that
    // injects faults into the daemon's connection.
    // `more`: further arguments.
    void start(const std::string &fault_plan = "", const std::vector<std::string> &more = {});
    void stop();  // SIGTERM
    void crash(); // SIGKILL
    bool started() const { return process != nullptr; }
    Process &tavd() { return *process; }
    const std::string &socket() const { return socket_path; }

private:
    Sandbox &sandbox;
    Keep keep;
    std::string socket_path;
    std::unique_ptr<Process> process;
};

// One address node of the store.
struct stored_address_t {
    std::string node;
    std::string address; // "2001:db8::5/64"
    std::string type;    // "Static"
    bool operator==(const stored_address_t &other) const {
        return node == other.node && address == other.address && type == other.type;
    }
};

namespace paths {
// Defined here: tests make constants of their own from it before main.
inline const std::string interfaces = "/Software/System Settings/Network/Interface";
std::string ipv6(int interface);
std::string gateway(int interface); // the leaf
std::string addresses(int interface);
std::string address(int interface, const std::string &node);       // the node
std::string address_value(int interface, const std::string &node); // its leaves
std::string type_value(int interface, const std::string &node);
} // namespace paths

// A client that edits as a user would. Every call throws std::runtime_error when the connection
// fails, and so do the writes when the store refuses them (try_write returns the status instead).
class Store {
public:
    explicit Store(std::string socket);
    ~Store();
    Store(const Store &) = delete;
    Store &operator=(const Store &) = delete;

    // Connections are made on first use; this one ends, so that the next use makes another.
    void disconnect();
    // Whether the service could be reached.
    bool reachable();

    using pairs_t = std::vector<std::pair<std::string, std::string>>;
    void write(const pairs_t &leaves); // one transaction
    void write(const std::string &path, const std::string &text) { write(pairs_t{{path, text}}); }
    void write_typed(const std::string &path, element_type_t type, const std::string &text);
    void remove(const std::string &path);
    api_status_t try_write(const std::string &path, const std::string &text);
    api_status_t try_remove(const std::string &path);
    std::optional<std::string> read(const std::string &path);
    std::vector<toolkit::child_t> list(const std::string &path);

    // Short forms for an interface's settings.
    void make_interface(int interface); // a node, without a setting that the daemon looks at
    void set_address(int interface, const std::string &node, const std::string &address,
                     const std::string &type = "Static");
    void remove_address(int interface, const std::string &node);
    std::vector<stored_address_t> addresses(int interface);
    bool has_address(int interface, const std::string &address, const std::string &type);
    // The node under which an address is stored; empty when it is not.
    std::string node_of(int interface, const std::string &address);
    void set_gateway(int interface, const std::string &gateway);
    void remove_gateway(int interface);
    std::optional<std::string> gateway(int interface);

    // Everything below the interfaces, a line each, without time stamps. The leaf that `World`
    // writes as a mark is omitted.
    std::string dump();

private:
    toolkit::CTav &client();
    void dump_below(const std::string &path, std::string &text);

    std::string socket_path;
    mlr_client_t *connection = nullptr;
    toolkit::CTav tav;
};

// The leaf that a test writes to find out how far the daemon has come: the daemon fetches and logs
// an event there, and does nothing else.
inline const std::string mark_path = paths::interfaces + "/Mark";

} // namespace kt
