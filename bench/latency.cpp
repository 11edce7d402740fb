// How long one change takes to reach the other side: from the kernel to the store, compared with
// the time that `ip -6 monitor` needs to print the same event, and from the store to the kernel,
// compared with a bare request to the kernel and a bare round trip to the service.
//
// Like a user's, the changes are more than 50 ms apart, the time that the service leaves between a
// client's request and its next wake-up.

#include <algorithm>
#include <array>
#include <cstdio>
#include <exception>
#include <fstream>
#include <future>
#include <sstream>
#include <stdexcept>
#include <string>

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <unistd.h>

#include "client/connection.h"
#include "support/listener.h"
#include "support/numbers.h"
#include "support/world.h"

namespace {

using bench::clock_type;
using bench::Listener;
using bench::seconds_between;
using bench::time_point;

constexpr useconds_t between_changes_us = 70000;

// Whether the process has a netlink socket that is subscribed to notifications.
bool listens(pid_t process) {
    std::ifstream table("/proc/" + std::to_string(process) + "/net/netlink");
    std::string line;
    while (std::getline(table, line)) {
        std::string socket;
        int protocol = 0;
        pid_t port = 0;
        std::string groups; // in hexadecimal digits
        std::istringstream(line) >> socket >> protocol >> port >> groups;
        if (port == process && groups.find_first_not_of('0') != std::string::npos) {
            return true;
        }
    }
    return false;
}

// The standard output of `ip -6 monitor address`.
class Monitor {
public:
    Monitor() {
        std::array<int, 2> ends{};
        if (pipe2(ends.data(), O_CLOEXEC) != 0) {
            kt::fail("pipe2");
        }
        child = fork();
        if (child == 0) {
            dup2(ends[1], 1);
            execlp("ip", "ip", "-6", "monitor", "address", nullptr);
            _exit(127);
        }
        close(ends[1]);
        output = ends[0];
        fcntl(output, F_SETFL, O_NONBLOCK);
        if (!kt::eventually([this] { return listens(child); })) {
            throw std::runtime_error("ip monitor does not listen");
        }
    }
    ~Monitor() {
        kill(child, SIGKILL);
        close(output);
    }
    Monitor(const Monitor &) = delete;
    Monitor &operator=(const Monitor &) = delete;

    int fd() const { return output; }
    void drain() const {
        std::array<char, 4096> text{};
        while (read(output, text.data(), text.size()) > 0) {
        }
    }

private:
    pid_t child = -1;
    int output = -1;
};

// Waits until each descriptor is readable, and returns the time of each.
template <std::size_t number>
std::array<time_point, number> times_of(const std::array<int, number> &fds) {
    std::array<pollfd, number> waiting{};
    std::array<time_point, number> times{};
    for (std::size_t i = 0; i < number; ++i) {
        waiting[i] = pollfd{fds[i], POLLIN, 0};
    }
    for (std::size_t left = number; left > 0;) {
        if (poll(waiting.data(), waiting.size(), 10000) <= 0) {
            throw std::runtime_error("a change was not followed");
        }
        const time_point now = clock_type::now();
        for (std::size_t i = 0; i < number; ++i) {
            if (waiting[i].fd >= 0 && waiting[i].revents != 0) {
                times[i] = now;
                waiting[i].fd = -1;
                --left;
            }
        }
    }
    return times;
}

// The same while `change` is made, in a thread that runs before all others on this processor: the
// notification that defines time zero is then seen during the request that causes it, and not only
// when other woken processes let this one continue.
template <std::size_t number, class Change>
std::array<time_point, number> times_after(const std::array<int, number> &fds, Change change) {
    cpu_set_t all;
    cpu_set_t one;
    sched_getaffinity(0, sizeof all, &all);
    CPU_ZERO(&one);
    CPU_SET(static_cast<unsigned>(sched_getcpu()), &one);
    sched_setaffinity(0, sizeof one, &one);
    auto times = std::async(std::launch::async, [&fds] {
        sched_param first{};
        first.sched_priority = 1;
        if (sched_setscheduler(0, SCHED_FIFO, &first) != 0) {
            kt::fail("sched_setscheduler");
        }
        return times_of<number>(fds);
    });
    usleep(between_changes_us / 10);
    change();
    sched_setaffinity(0, sizeof all, &all);
    return times.get();
}

struct latencies_t {
    std::vector<double> ours;
    std::vector<double> monitor;  // or the bare request to the kernel
    std::vector<double> exchange; // the bare round trip to the service
};

// Reads the rest of the last change's output, once it is complete.
void settle(bench::Watcher &watcher, Listener &listener, const Monitor *monitor) {
    usleep(between_changes_us / 2);
    watcher.drain();
    listener.fetch();
    if (monitor != nullptr) {
        monitor->drain();
    }
    usleep(between_changes_us);
}

latencies_t kernel_to_store(bench::World &world, int samples) {
    bench::Watcher watcher;
    bench::Requester kernel(world.link_index());
    Listener listener(world.tavd.socket());
    const Monitor monitor;
    latencies_t found;
    for (int i = 0; i < samples; ++i) {
        const std::string address = bench::address_text(i + 1);
        settle(watcher, listener, &monitor);
        const auto times = times_after<3>({watcher.fd(), listener.fd(), monitor.fd()},
                                          [&] { kernel.add(address); });
        found.ours.push_back(seconds_between(times[0], times[1]));
        found.monitor.push_back(seconds_between(times[0], times[2]));
        if (!world.tavd.store().has_address(1, address, "Automatic")) {
            throw std::runtime_error("the store was changed, but lacks " + address);
        }
        settle(watcher, listener, &monitor);
        kernel.remove(address);
        times_of<3>({watcher.fd(), listener.fd(), monitor.fd()});
    }
    return found;
}

// A read of nothing and its reply.
double bare_exchange(tav::Connection &connection) {
    tav::Writer request = connection.request(tav::Op::read);
    request.u32(0);
    std::string_view reply;
    const time_point begin = clock_type::now();
    if (!connection.exchange(tav::Op::read, request, reply)) {
        throw std::runtime_error("the service does not answer");
    }
    return seconds_between(begin, clock_type::now());
}

latencies_t store_to_kernel(bench::World &world, int samples) {
    bench::Watcher watcher;
    bench::Requester kernel(world.link_index());
    Listener listener(world.tavd.socket());
    latencies_t found;
    for (int i = 0; i < samples; ++i) {
        const std::string address = bench::address_text(i + 1);
        settle(watcher, listener, nullptr);
        world.tavd.store().set_address(1, "bench", address);
        const time_point returned = clock_type::now();
        const auto times = times_of<1>({watcher.fd()});
        // It may have arrived before the call returned.
        found.ours.push_back(std::max(0.0, seconds_between(returned, times[0])));

        settle(watcher, listener, nullptr);
        const time_point begin = clock_type::now();
        kernel.add(bench::address_text(0xf000 + i));
        found.monitor.push_back(seconds_between(begin, clock_type::now()));
        kernel.remove(bench::address_text(0xf000 + i));

        settle(watcher, listener, nullptr);
        found.exchange.push_back(bare_exchange(*listener.tav.handle->connection));
        world.tavd.store().remove_address(1, "bench");
        times_of<1>({watcher.fd()});
    }
    return found;
}

void print(bench::World &world, const bench::options_t &options) {
    bench::series_t in50, in99, monitor50, monitor99, out50, out99, bare50, exchange50;
    for (int round = 0; round < options.rounds; ++round) {
        const latencies_t in = kernel_to_store(world, options.samples);
        in50.add(bench::median(in.ours));
        in99.add(bench::quantile(in.ours, 0.99));
        monitor50.add(bench::median(in.monitor));
        monitor99.add(bench::quantile(in.monitor, 0.99));
        const latencies_t out = store_to_kernel(world, options.samples);
        out50.add(bench::median(out.ours));
        out99.add(bench::quantile(out.ours, 0.99));
        bare50.add(bench::median(out.monitor));
        exchange50.add(bench::median(out.exchange));
    }
    bench::table_head({"One change", "tandrel", "peer or limit", "ratio"});
    bench::table_row({"1. kernel to store, p50", bench::time_text(in50),
                      "`ip -6 monitor`: " + bench::time_text(monitor50),
                      bench::verdict(in50.middle() / monitor50.middle(), 2)});
    bench::table_row({"1. kernel to store, p99", bench::time_text(in99),
                      "`ip -6 monitor`: " + bench::time_text(monitor99),
                      "to 2 ms: " + bench::verdict(in99.middle() / 2e-3, 1)});
    bench::table_row({"2. store to kernel, p50", bench::time_text(out50),
                      "round trip to the service: " + bench::time_text(exchange50),
                      bench::verdict(out50.middle() / exchange50.middle(), 12)});
    bench::table_row({"2. store to kernel, p99", bench::time_text(out99),
                      "netlink request and answer, p50: " + bench::time_text(bare50), ""});
}

} // namespace

int main(int argc, char **argv) {
    const bench::options_t options =
        bench::parse_options(argc, argv, "Latency of one change in both directions (rows 1, 2)");
    try {
        bench::World world(options.durability);
        world.renew_link();
        world.start_daemon();
        world.wait_for_stored(1);
        print(world, options);
        world.stop_daemon();
        return 0;
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "%s\n", failure.what());
        return 1;
    }
}
