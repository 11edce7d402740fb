// Many devices on one machine: each with its own namespace, link, store and daemon, all with steady
// changes on both sides.

#include <algorithm>
#include <cstdio>
#include <deque>
#include <exception>
#include <stdexcept>

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include "support/footprint.h"
#include "support/numbers.h"
#include "support/world.h"

namespace {

using bench::clock_type;
using bench::seconds_between;
using bench::time_point;

constexpr double changes_per_second = 2; // of each device

// Network namespaces beside the sandbox's own two.
class Namespace {
public:
    explicit Namespace(int home) {
        if (unshare(CLONE_NEWNET) != 0) {
            kt::fail("unshare");
        }
        fd = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
        if (setns(home, CLONE_NEWNET) != 0 || fd < 0) {
            kt::fail("setns");
        }
    }
    ~Namespace() { close(fd); }
    Namespace(const Namespace &) = delete;
    Namespace &operator=(const Namespace &) = delete;

    int fd = -1;
};

// One device; its changes are a cycle of four steps, so that its state is the same after the
// fourth.
class Device {
public:
    Device(kt::Sandbox &sandbox, const std::string &durability, int number)
        : home(sandbox.device()), network(home), kernel(network.fd), neighbour(sandbox.neighbour()),
          tavd(sandbox, durability, "tav" + std::to_string(number), network.fd) {
        {
            const kt::NamespaceVisit visit(network.fd);
            for (const std::string which : {"all", "default"}) {
                kt::write_file("/proc/sys/net/ipv6/conf/" + which + "/accept_dad", "0");
            }
        }
        const std::string peer = "peer" + std::to_string(number);
        kernel.add_veth("eth0", peer, sandbox.neighbour());
        neighbour.set_up(peer);
        kernel.set_up("eth0");
        tavd.store().make_interface(1);
        kt::spawn_options_t options;
        options.network = network.fd;
        options.environment["TAV_SOCKET"] = tavd.socket();
        daemon = std::make_unique<kt::Process>(
            sandbox, std::vector<std::string>{kt::program("TANDREL"), "-d"}, options);
    }

    bool synchronised() { return stored() == 1; }

    void change() {
        const std::string address = bench::address_text(++changes);
        switch (step) {
        case 0:
            in_kernel = address;
            kernel.add_address("eth0", address);
            break;
        case 1:
            in_store = address;
            tavd.store().set_address(1, "bench", address);
            break;
        case 2:
            kernel.delete_address("eth0", in_kernel);
            break;
        default:
            tavd.store().remove_address(1, "bench");
            break;
        }
        since = clock_type::now();
    }

    // Whether the last change has reached the other side; then the next one may be made.
    bool followed() {
        const bool done = step == 0   ? stored() == 2
                          : step == 1 ? kernel.has_address("eth0", in_store)
                          : step == 2 ? stored() == 2
                                      : !kernel.has_address("eth0", in_store);
        if (done) {
            step = (step + 1) % 4;
        }
        return done;
    }

    time_point changed_at() const { return since; }
    std::vector<pid_t> processes() const { return {daemon->pid(), tavd.pid()}; }

private:
    std::size_t stored() { return tavd.store().list(kt::paths::addresses(1)).size(); }

    int home;
    Namespace network;
    kt::Kernel kernel;
    kt::Kernel neighbour;
    bench::Tavd tavd;
    std::unique_ptr<kt::Process> daemon;
    std::string in_kernel;
    std::string in_store;
    int step = 0;
    int changes = 0;
    time_point since;
};

using devices_t = std::deque<std::unique_ptr<Device>>;

// Makes the changes of each device for some time, and records how long each took.
std::vector<double> churn(devices_t &devices, double seconds) {
    std::vector<double> latencies;
    std::deque<Device *> waiting;
    const double pause = 1 / (changes_per_second * static_cast<double>(devices.size()));
    const time_point begin = clock_type::now();
    std::size_t issued = 0;
    for (;;) {
        const double now = seconds_between(begin, clock_type::now());
        if (now >= seconds && waiting.empty()) {
            return latencies;
        }
        if (now < seconds && now >= pause * static_cast<double>(issued)) {
            Device *const next = devices.front().get();
            if (std::find(waiting.begin(), waiting.end(), next) == waiting.end()) {
                next->change();
                waiting.push_back(next);
                ++issued;
                devices.push_back(std::move(devices.front()));
                devices.pop_front();
            }
        }
        for (std::size_t left = waiting.size(); left > 0; --left) {
            Device *const one = waiting.front();
            waiting.pop_front();
            if (one->followed()) {
                latencies.push_back(seconds_between(one->changed_at(), clock_type::now()));
            } else if (seconds_between(one->changed_at(), clock_type::now()) > 60) {
                throw std::runtime_error("a device did not follow a change");
            } else {
                waiting.push_back(one);
            }
        }
        usleep(500);
    }
}

void print(const bench::options_t &options) {
    kt::Sandbox sandbox;
    devices_t devices;
    for (int i = 0; i < options.samples; ++i) {
        devices.push_back(std::make_unique<Device>(sandbox, options.durability, i));
    }
    for (const auto &device : devices) {
        if (!kt::eventually([&] { return device->synchronised(); })) {
            throw std::runtime_error("a device did not synchronise");
        }
    }
    bench::series_t middle, slowest, load;
    const double seconds = options.samples < 10 ? 3 : 20;
    double memory = 0;
    for (int round = 0; round < options.rounds; ++round) {
        double before = 0;
        double after = 0;
        for (const auto &device : devices) {
            for (const pid_t process : device->processes()) {
                before += kt::processor_seconds(process);
            }
        }
        const std::vector<double> latencies = churn(devices, seconds);
        memory = 0;
        for (const auto &device : devices) {
            for (const pid_t process : device->processes()) {
                after += kt::processor_seconds(process);
                memory += bench::memory_of(process).proportional;
            }
        }
        middle.add(bench::median(latencies));
        slowest.add(bench::quantile(latencies, 1));
        load.add((after - before) / seconds * 100);
    }
    bench::table_head({"7. " + std::to_string(options.samples) + " devices", "result", "target"});
    bench::table_row({"convergence of a change, p50", bench::time_text(middle), ""});
    bench::table_row({"slowest", bench::time_text(slowest), "all converge"});
    bench::table_row({"processor, all daemons and services, of one core",
                      bench::number_text(load.middle(), 1) + " %", ""});
    bench::table_row({"memory, all daemons and services, proportional",
                      bench::number_text(memory / 1024, 0) + " MB",
                      "to 1 GB: " + bench::verdict(memory / 1024 / 1024, 1)});
}

} // namespace

int main(int argc, char **argv) {
    const bench::options_t options = bench::parse_options(
        argc, argv, "Many devices on one machine (row 7); --samples is their number",
        {5, 100, "normal", ""});
    try {
        print(options);
        return 0;
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "%s\n", failure.what());
        return 1;
    }
}
