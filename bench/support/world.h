// The start of a row: a network namespace with links, the settings store in a database, and the
// daemon between them. Nothing of it touches the host's network.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "harness/process.h"
#include "harness/rtnl.h"
#include "harness/sandbox.h"
#include "harness/store.h"
#include "support/watcher.h"

namespace bench {

// The options of every driver.
struct options_t {
    int rounds = 5;
    int samples = 100; // of a round
    std::string durability = "normal";
    std::string plot; // file to draw into; empty: none
};
// Ends the process on a wrong command line.
options_t parse_options(int argc, char **argv, const char *description, options_t defaults = {});

// tavd with its database, and a client that edits as a user would.
class Tavd {
public:
    // Started in `network` (a namespace's descriptor; -1: the caller's). `name` distinguishes
    // several.
    Tavd(kt::Sandbox &sandbox, const std::string &durability, const std::string &name = "tav",
         int network = -1);
    kt::Store &store() { return *client; }
    const std::string &socket() const { return socket_path; }
    pid_t pid() const { return process->pid(); }
    // The session of this process; -1: the caller's own, which is created for this and is the
    // newest. 0 if it has none.
    std::uint64_t session_of(pid_t process);

private:
    std::string socket_path;
    std::unique_ptr<kt::Process> process;
    std::unique_ptr<kt::Store> client;
};

class World {
public:
    explicit World(const std::string &durability);

    // eth0, up, as if just connected: with only its link-local address.
    void renew_link();
    int link_index() { return device.index("eth0"); }
    kt::Process &start_daemon(const std::vector<std::string> &options = {"-d"});
    // Waits until the store has this many addresses, including the link-local one.
    void wait_for_stored(std::size_t addresses);
    // Ends it normally; throws std::runtime_error if it had to rebuild its engine.
    void stop_daemon();
    // Under the nodes 1 to `count` of interface 1.
    void store_static(int count);
    void clear_store();

    kt::Sandbox sandbox;
    kt::Kernel device;
    kt::Kernel neighbour;
    Tavd tavd;
    std::unique_ptr<kt::Process> daemon;

private:
    std::uint64_t last_session = 0; // before the daemon was started
};

// Runs `ip -batch` to its end, and returns the time that it took in seconds. Throws
// std::runtime_error unless it ends with status 0.
double run_batch(const std::string &path);
// A file of `ip -batch` that adds the addresses 1 to `count` to eth0; its path.
std::string write_batch(kt::Sandbox &sandbox, int count);

} // namespace bench
