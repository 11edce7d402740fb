#include "support/world.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include "client/admin.h"

namespace bench {

options_t parse_options(int argc, char **argv, const char *description, options_t defaults) {
    CLI::App app(description);
    app.add_option("--rounds", defaults.rounds, "Rounds of which the median is shown")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    app.add_option("--samples", defaults.samples, "Measurements of a round")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    app.add_option("--durability", defaults.durability, "What tavd promises of a commit")
        ->check(CLI::IsMember({"normal", "full"}))
        ->capture_default_str();
    app.add_option("--plot", defaults.plot, "SVG file to draw into, where a row has a plot");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        std::exit(app.exit(error));
    }
    return defaults;
}

Tavd::Tavd(kt::Sandbox &sandbox, const std::string &durability, const std::string &name,
           int network)
    : socket_path(sandbox.directory() + "/" + name + ".sock") {
    kt::spawn_options_t options;
    options.network = network;
    std::vector<std::string> arguments{kt::program("TAVD"),
                                       "--socket",
                                       socket_path,
                                       "--database",
                                       sandbox.directory() + "/" + name + ".db",
                                       "--initial-node",
                                       kt::paths::interfaces};
    if (durability != "full") { // full is the default
        arguments.push_back("--durability=" + durability);
    }
    process = std::make_unique<kt::Process>(sandbox, arguments, options);
    client = std::make_unique<kt::Store>(socket_path);
    if (!kt::eventually([this] { return !process->running() || client->reachable(); }) ||
        !process->running()) {
        throw std::runtime_error("tavd does not serve:\n" + process->errors().tail(20));
    }
}

std::uint64_t Tavd::session_of(pid_t wanted) {
    setenv("TAV_SOCKET", socket_path.c_str(), 1);
    mlr_client_t *connection = mlr_init();
    unsetenv("TAV_SOCKET");
    tav::ServiceStatus status;
    const int result = tav::service_status(connection, status);
    mlr_close(connection);
    if (result != 0) {
        throw std::runtime_error("tavd does not report its status");
    }
    const auto number = static_cast<std::uint32_t>(wanted == -1 ? getpid() : wanted);
    std::uint64_t newest = 0;
    for (const auto &one : status.clients) {
        if (one.pid == number) {
            newest = std::max(newest, one.session);
        }
    }
    return newest;
}

World::World(const std::string &durability)
    : device(sandbox.device()), neighbour(sandbox.neighbour()), tavd(sandbox, durability) {
    // Duplicate address detection would keep each address tentative for a second or two.
    for (const std::string which : {"all", "default"}) {
        kt::write_file("/proc/sys/net/ipv6/conf/" + which + "/accept_dad", "0");
    }
    device.set_up("lo");
    tavd.store().make_interface(1);
}

void World::renew_link() {
    if (link_index() != 0) {
        device.delete_link("eth0");
    }
    device.add_veth("eth0", "peer0", sandbox.neighbour());
    neighbour.set_up("peer0");
    device.set_up("eth0");
    if (!kt::eventually([this] { return !device.link_local("eth0").empty(); })) {
        throw std::runtime_error("eth0 has no link-local address");
    }
    // The kernel is still removing the old link, with locks that additions need as well.
    usleep(500000);
}

kt::Process &World::start_daemon(const std::vector<std::string> &options) {
    last_session = tavd.session_of(-1);
    std::vector<std::string> command{kt::program("TANDREL")};
    command.insert(command.end(), options.begin(), options.end());
    kt::spawn_options_t surroundings;
    surroundings.environment["TAV_SOCKET"] = tavd.socket();
    daemon = std::make_unique<kt::Process>(sandbox, command, surroundings);
    return *daemon;
}

void World::wait_for_stored(std::size_t addresses) {
    constexpr useconds_t pause_us = 1000;
    for (auto left = std::chrono::microseconds(kt::patience).count() / pause_us;
         tavd.store().list(kt::paths::addresses(1)).size() != addresses; --left) {
        if (left == 0) {
            throw std::runtime_error("the store does not follow:\n" + daemon->errors().tail(20));
        }
        usleep(pause_us);
    }
}

void World::stop_daemon() {
    // A rebuilt engine has a new connection.
    const bool rebuilt = tavd.session_of(daemon->pid()) != last_session + 1;
    daemon->signal(SIGTERM);
    if (daemon->wait_exit() != 0) {
        throw std::runtime_error("the daemon did not end with status 0");
    }
    daemon.reset();
    if (rebuilt) {
        throw std::runtime_error("the daemon had to rebuild its engine");
    }
}

void World::store_static(int count) {
    kt::Store::pairs_t leaves;
    for (int i = 1; i <= count; ++i) {
        const std::string node = std::to_string(i);
        leaves.emplace_back(kt::paths::address_value(1, node), address_text(i));
        leaves.emplace_back(kt::paths::type_value(1, node), "Static");
    }
    tavd.store().write(leaves);
}

void World::clear_store() {
    if (!tavd.store().list(kt::paths::ipv6(1)).empty()) {
        tavd.store().remove(kt::paths::ipv6(1));
    }
}

double run_batch(const std::string &path) {
    const time_point begin = clock_type::now();
    const pid_t child = fork();
    if (child == 0) {
        execlp("ip", "ip", "-batch", path.c_str(), nullptr);
        _exit(127);
    }
    int status = -1;
    if (child < 0 || waitpid(child, &status, 0) != child || status != 0) {
        throw std::runtime_error("ip -batch failed");
    }
    return seconds_between(begin, clock_type::now());
}

std::string write_batch(kt::Sandbox &sandbox, int count) {
    const std::string path = sandbox.directory() + "/batch-" + std::to_string(count);
    std::ofstream file(path);
    for (int i = 1; i <= count; ++i) {
        file << "address add " << address_text(i) << " dev eth0\n";
    }
    return path;
}

} // namespace bench
