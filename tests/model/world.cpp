#include "world.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <linux/if_addr.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "harness/advertiser.h"
#include "store_change.h"

namespace model {
namespace {

constexpr std::uint32_t moment = 2; // life time in seconds of what expires
constexpr std::uint32_t long_life = 3600;

#ifdef __SANITIZE_ADDRESS__
constexpr bool under_sanitizer = true;
#else
constexpr bool under_sanitizer = false;
#endif

std::string peer_name(int slot, int serial) {
    return "peer" + std::to_string(slot) + "n" + std::to_string(serial);
}

std::string full(const std::string &path) {
    return kt::paths::interfaces + "/" + path;
}

std::size_t open_descriptors(pid_t pid) {
    const std::filesystem::directory_iterator all("/proc/" + std::to_string(pid) + "/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

// Resident memory in KiB.
long resident(pid_t pid) {
    std::istringstream status(kt::read_file("/proc/" + std::to_string(pid) + "/status"));
    for (std::string word; status >> word;) {
        if (word == "VmRSS:") {
            long amount = 0;
            status >> amount;
            return amount;
        }
    }
    return 0;
}

// Whether the link, of the calling process's network namespace, is up and has its carrier.
bool is_running(const std::string &link) {
    const int fd = socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    link.copy(static_cast<char *>(request.ifr_name), sizeof request.ifr_name - 1);
    const bool known = ioctl(fd, SIOCGIFFLAGS, &request) == 0;
    close(fd);
    return known && (request.ifr_flags & IFF_RUNNING) != 0;
}

void wait_milliseconds(unsigned int duration) {
    std::this_thread::sleep_for(std::chrono::milliseconds(duration));
}

} // namespace

World::World(const Sequence &wanted)
    : KernelTest(kt::Service::Keep::database), sequence(wanted), pauses(wanted.seed) {
    const kt::NamespaceVisit visit(sandbox.neighbour());
    for (const std::string which : {"all", "default"}) {
        kt::write_file("/proc/sys/net/ipv6/conf/" + which + "/accept_dad", "0");
    }
}

World::~World() {
    store.disconnect();
}

void World::create(int slot) {
    const std::string name = "eth" + std::to_string(slot);
    const std::string peer = peer_name(slot, ++created);
    device.add_veth(name, peer, sandbox.neighbour());
    device.set_hardware_address(name, hardware_address(slot));
    neighbour.set_up(peer);
    names[slot] = name;
    peers[slot] = peer;
}

void World::start() {
    for (const int slot : {0, 1}) {
        create(slot);
        device.set_up(names[slot]);
        up.insert(slot);
        coming_up.insert(slot);
    }
    // A link that the daemon ignores, for the notifications that overflow its buffer.
    device.add_veth("noise0", "noisepeer0", sandbox.neighbour());
    service.start();
    store_runs = true;
    store.make_interface(1);
    store.make_interface(2);
    store.write(full(touched_leaf()), "fe80::99");
    start_tandrel();
    await_normal_operation(0);
    rest();
}

void World::start_tandrel() {
    start_daemon({"-d", "-D", "3"},
                 kt::preloaded({{"KT_PAUSE_MS", "50"},
                                {"KT_SELECT_DELAY", std::to_string(sequence.turn_delay)},
                                {"KT_RCVBUF_CAP", "212992"}}));
    mark = 0;
}

void World::await_normal_operation(std::size_t from) {
    if (log().wait_for(kt::normal_operation, from) == 0) {
        throw std::runtime_error("the daemon does not come into normal operation");
    }
    // The line comes before the first synchronisation.
    if (!settle()) {
        throw std::runtime_error("the daemon does not come to rest");
    }
}

// The carrier comes a moment after the link is set up, and the address with it.
void World::await_kernel() {
    for (const int slot : coming_up) {
        if (!kt::eventually([&] { return is_running(names[slot]); })) {
            throw std::runtime_error("no carrier on " + names[slot]);
        }
        // The address may have been deleted, so that it never appears.
        kt::eventually([&] { return !device.link_local(names[slot]).empty(); },
                       std::chrono::seconds(3));
    }
    coming_up.clear();
    if (!kt::eventually([&] { return !device.is_checking(); })) {
        throw std::runtime_error("an address stays tentative");
    }
}

// Until nobody has anything left to report to the daemon, and it has handled everything.
void World::rest() {
    await_kernel();
    if (!store_runs || daemon == nullptr) {
        return;
    }
    if (!settle() || !settle()) {
        throw std::runtime_error("the daemon does not come to rest");
    }
    if (sequence.turn_delay > 0) {
        wait_milliseconds(100); // a slowed daemon does not return to its wait at once
    }
}

bool World::addresses_are_lasting() {
    for (const auto &item : names) {
        for (const auto &address : device.addresses(item.second)) {
            if (address.valid_seconds < 60) {
                return false;
            }
        }
    }
    return true;
}

std::vector<Done> World::run(const Burst &burst) {
    mark = daemon == nullptr ? 0 : log().size();
    rebuild_expected = false;
    std::vector<Done> done;
    if (burst.pace == Pace::frozen) {
        daemon->freeze();
    }
    for (const auto &operation : burst.operations) {
        done.push_back(carry_out(operation));
        pause(burst.pace);
    }
    if (burst.pace == Pace::frozen) {
        wait_milliseconds(100); // the service may still delay the wake-up
        daemon->thaw();
    }
    if (!store_runs) {
        process_operation({Kind::store_start, {}});
        done.push_back({{Kind::store_start, {}}});
    }
    if (daemon == nullptr) {
        process_operation({Kind::daemon_start, {}});
        done.push_back({{Kind::daemon_start, {}}});
    }
    rest();
    if (!kt::eventually([&] { return addresses_are_lasting(); })) {
        throw std::runtime_error("an address does not expire");
    }
    rest();
    return done;
}

void World::pause(Pace pace) {
    pauses = pauses * 1664525U + 1013904223U;
    const unsigned int random = pauses >> 16U;
    if (pace == Pace::settled) {
        rest();
    } else if (pace == Pace::slow) {
        wait_milliseconds(20 + random % 60);
    } else if (pace == Pace::fast && random % 2 == 0) {
        usleep(random % 2000);
    }
}

Done World::carry_out(const Operation &operation) {
    Done done{operation};
    const auto &arguments = operation.arguments;
    if (is_store_side(operation.kind)) {
        if (store_runs) {
            store_operation(operation);
        } else {
            done.answer = -1;
        }
        return done;
    }
    if (!is_kernel_side(operation.kind)) {
        process_operation(operation);
        return done;
    }
    const int slot = arguments[0];
    if (is_there(slot) == (operation.kind == Kind::link_create)) {
        done.answer = -1;
        return done;
    }
    const std::string name = is_there(slot) ? names[slot] : "";
    const auto at = [&] {
        return address_text(slot, arguments[1]) + "/" + std::to_string(arguments[2]);
    };
    const auto route = [&] {
        kt::kernel_route_t one{"::/0", gateway_text(arguments[1]), name};
        one.protocol = static_cast<std::uint8_t>(arguments[2]);
        one.metric = static_cast<std::uint32_t>(arguments[3]);
        return one;
    };
    kt::address_options_t options;
    switch (operation.kind) {
    case Kind::kernel_add:
        options.valid_seconds = arguments[3] != 0 ? moment : 0;
        done.answer = device.try_add_address(name, at(), options);
        break;
    case Kind::kernel_delete:
        done.answer = device.try_delete_address(name, at());
        break;
    case Kind::kernel_lifetime:
        options.valid_seconds = long_life;
        options.replace = true;
        done.answer = device.try_add_address(name, at(), options);
        break;
    case Kind::advertise:
        await_kernel(); // before that nothing would arrive
        if (up.count(slot) == 0 ||
            kt::advertise_once(sandbox.neighbour(), peers[slot], prefix_text(arguments[1]),
                               arguments[2] != 0 ? moment : long_life) != 0) {
            done.answer = -1;
        }
        break;
    case Kind::route_add:
        done.answer = device.try_add_route(route());
        break;
    case Kind::route_delete:
        done.answer = device.try_delete_route(route());
        break;
    default:
        link_operation(operation, done);
    }
    return done;
}

void World::link_operation(const Operation &operation, Done &done) {
    const int slot = operation.arguments[0];
    const std::string plain = "eth" + std::to_string(slot);
    switch (operation.kind) {
    case Kind::link_create:
        create(slot);
        done.index = device.index(plain);
        break;
    case Kind::link_delete:
    case Kind::link_move:
        if (operation.kind == Kind::link_delete) {
            device.delete_link(names[slot]);
        } else {
            // Give it another name, so that the next link moved there has room.
            const std::string other = "eth9" + std::to_string(++moved);
            device.rename(names[slot], other);
            device.move_link(other, sandbox.neighbour());
        }
        names.erase(slot);
        up.erase(slot);
        coming_up.erase(slot);
        break;
    case Kind::link_rename: {
        const std::string other = names[slot] == plain ? "eth7" + std::to_string(slot) : plain;
        device.rename(names[slot], other);
        names[slot] = other;
        break;
    }
    default:
        device.set_up(names[slot], operation.kind == Kind::link_up);
        if (operation.kind == Kind::link_up) {
            if (up.insert(slot).second) {
                coming_up.insert(slot);
            }
        } else {
            up.erase(slot);
            coming_up.erase(slot);
        }
    }
}

void World::store_operation(const Operation &operation) {
    if (operation.kind == Kind::touch) {
        kt::spawn_options_t options;
        options.environment["TAV_SOCKET"] = service.socket();
        kt::Process tool(sandbox, {kt::program("TAV"), "touch", full(touched_leaf())}, options);
        if (tool.wait_exit() != 0) {
            throw std::runtime_error("tav touch: " + tool.errors().tail(5));
        }
        return;
    }
    const StoreChange change =
        change_of(operation, [&](const std::string &path) { return store.read(full(path)); });
    if (!change.pairs.empty()) {
        kt::Store::pairs_t pairs;
        for (const auto &pair : change.pairs) {
            pairs.emplace_back(full(pair.first), pair.second);
        }
        store.write(pairs);
    }
    if (!change.removed.empty()) {
        store.try_remove(full(change.removed));
    }
}

void World::process_operation(const Operation &operation) {
    await_kernel();
    switch (operation.kind) {
    case Kind::daemon_stop:
        if (daemon != nullptr) {
            daemon->signal(operation.arguments[0] != 0 ? SIGKILL : SIGTERM);
            if (daemon->wait() == -1) {
                throw std::runtime_error("the daemon does not end");
            }
            daemon.reset();
        }
        break;
    case Kind::daemon_start:
        if (daemon == nullptr) {
            start_tandrel();
            if (store_runs) {
                await_normal_operation(0);
            }
        }
        break;
    case Kind::store_stop:
        if (store_runs) {
            rebuild_expected = true;
            store.disconnect();
            service.crash();
            store_runs = false;
        }
        break;
    case Kind::store_start:
        if (!store_runs) {
            const std::size_t from = daemon == nullptr ? 0 : log().size();
            service.start();
            store_runs = true;
            if (daemon != nullptr) {
                await_normal_operation(from);
            }
        }
        break;
    default:
        overflow();
    }
}

// More notifications than fit the receive buffer, while the daemon is stopped.
void World::overflow() {
    if (daemon == nullptr || !store_runs) {
        return;
    }
    rebuild_expected = true;
    const std::size_t from = log().size();
    daemon->freeze();
    for (int i = 0; i < 600; ++i) {
        const std::string address = "2001:db8:f::1/64";
        device.add_address("noise0", address);
        device.delete_address("noise0", address);
    }
    daemon->thaw();
    await_normal_operation(from);
}

void World::touch() {
    mark = log().size();
    rebuild_expected = false;
    store_operation({Kind::touch, {}});
    rest();
}

KernelModel World::seen_kernel() {
    KernelModel kernel;
    std::map<std::string, int> indices;
    for (const auto &item : names) {
        const int index = device.index(item.second);
        indices[item.second] = index;
        KernelLink link{item.second, item.first, up.count(item.first) != 0, {}};
        for (const auto &address : device.addresses(item.second)) {
            const auto slash = address.text.find('/');
            link.addresses.push_back(
                {address.text.substr(0, slash), std::stoi(address.text.substr(slash + 1)), false});
        }
        kernel.links[index] = link;
    }
    for (const auto &route : device.routes()) {
        if (route.destination == "::/0" && indices.count(route.link) != 0) {
            kernel.routes.push_back({indices[route.link], route.gateway, route.protocol,
                                     static_cast<int>(route.metric)});
        }
    }
    std::stable_sort(
        kernel.routes.begin(), kernel.routes.end(),
        [](const KernelRoute &one, const KernelRoute &other) { return one.metric < other.metric; });
    return kernel;
}

StoreModel World::seen_store() {
    StoreModel seen;
    std::vector<std::string> waiting{""};
    while (!waiting.empty()) {
        const std::string node = waiting.back();
        waiting.pop_back();
        for (const auto &child : store.list(node.empty() ? kt::paths::interfaces : full(node))) {
            const std::string path = node.empty() ? child.first : node + "/" + child.first;
            if (child.second.first == element_type_node) {
                seen.nodes.insert(path);
                waiting.push_back(path);
            } else if (full(path) != kt::mark_path) {
                seen.leaves[path] = store.read(full(path)).value_or("?");
            }
        }
    }
    return seen;
}

std::vector<kt::line_t> World::recent_lines() {
    return log().lines(mark);
}

std::string World::recent_text() {
    std::string text;
    for (const auto &line : daemon == nullptr ? std::vector<kt::line_t>() : recent_lines()) {
        const bool is_mark = line.text.find("link 'mark") != std::string::npos ||
                             line.text.find(kt::mark_path) != std::string::npos;
        text += is_mark ? "" : "    " + line.text + "\n";
    }
    return text;
}

std::string World::trouble() {
    if (daemon == nullptr || !daemon->running()) {
        return "the daemon has ended\n";
    }
    std::string found;
    if (!rebuild_expected && log().count_containing("Caught exception", mark) != 0) {
        found += "the daemon rebuilt its engine\n";
    }
    const std::size_t descriptors = open_descriptors(daemon->pid());
    const long memory = resident(daemon->pid());
    if (measured != daemon->pid()) {
        measured = daemon->pid();
        usual_descriptors = descriptors;
        usual_memory = memory;
    }
    if (descriptors != usual_descriptors) {
        found += "the daemon has " + std::to_string(descriptors) + " descriptors, it had " +
                 std::to_string(usual_descriptors) + "\n";
    }
    // The allocator and the C library keep far less; AddressSanitizer, which keeps freed memory,
    // has its own search for leaks.
    constexpr long tolerance = 16L << 10U;
    if (!under_sanitizer && memory > usual_memory + tolerance) {
        found += "the daemon's memory grew from " + std::to_string(usual_memory) + " to " +
                 std::to_string(memory) + " KiB\n";
    }
    return found;
}

std::string World::finish() {
    if (daemon == nullptr) {
        return "there is no daemon\n";
    }
    daemon->signal(SIGTERM);
    const int status = daemon->wait_exit();
    std::string found;
    if (status != 0) {
        found += "the daemon ended with status " + std::to_string(status) + "\n";
    }
    if (daemon->errors().find_containing("Sanitizer") != -1) {
        found += "a sanitizer complained:\n" + daemon->errors().tail(60);
    }
    store.disconnect();
    service.stop();
    return found;
}

} // namespace model
