// A router's link with a full routing table, and many links with many addresses: the start, and
// following a default route while the table changes ten thousand times a second.

#include <atomic>
#include <cstdio>
#include <exception>
#include <fstream>
#include <stdexcept>
#include <thread>

#include <poll.h>
#include <unistd.h>

#include "harness/many_routes.h"
#include "support/footprint.h"
#include "support/listener.h"
#include "support/numbers.h"
#include "support/world.h"

namespace {

using bench::clock_type;
using bench::seconds_between;
using bench::time_point;

constexpr int changes_per_second = 10000;

// Changes routes beyond the first `beyond` ones at that rate, as long as it exists.
class Churn {
public:
    Churn(int link_index, int beyond) : table(link_index, "fe80::99") {
        thread = std::thread([this, beyond] { work(beyond); });
    }
    ~Churn() {
        stop = true;
        thread.join();
    }
    Churn(const Churn &) = delete;
    Churn &operator=(const Churn &) = delete;
    // So far; less than wanted if the kernel does not keep up.
    long changes() const { return done; }

private:
    void work(int beyond) {
        constexpr int at_once = 50;
        const auto pause = std::chrono::microseconds(1000000L * 2 * at_once / changes_per_second);
        for (time_point next = clock_type::now(); !stop; next += pause) {
            std::this_thread::sleep_until(next);
            table.add(beyond, at_once);
            table.remove(beyond, at_once);
            done += 2 * at_once;
        }
    }

    kt::ManyRoutes table;
    std::atomic<bool> stop{false};
    std::atomic<long> done{0};
    std::thread thread;
};

double time_of_list(bench::World &world, const char *what) {
    const time_point begin = clock_type::now();
    kt::Process ip(world.sandbox, {"/bin/sh", "-c", std::string("ip -6 ") + what + " >/dev/null"});
    if (ip.wait_exit(std::chrono::minutes(2)) != 0) {
        throw std::runtime_error(std::string("ip -6 ") + what + " failed");
    }
    return seconds_between(begin, clock_type::now());
}

// From its start until it has stored the link's own address, the first thing that it does in normal
// operation.
double time_of_start(bench::World &world) {
    world.clear_store();
    world.tavd.store().make_interface(1);
    const time_point begin = clock_type::now();
    world.start_daemon();
    world.wait_for_stored(1);
    return seconds_between(begin, clock_type::now());
}

// From the change of a static default route in the kernel until a client of the store is woken; and
// the part of it until the kernel has answered the request.
struct followed_t {
    std::vector<double> change, request;
};
void time_default_route(bench::World &world, bench::Listener &listener, bool added,
                        followed_t &found) {
    const kt::kernel_route_t route{"::/0", "fe80::1", "eth0"};
    usleep(60000); // a wake-up is immediate only after 50 ms without requests
    listener.fetch();
    usleep(60000);
    const time_point begin = clock_type::now();
    added ? world.device.add_route(route) : world.device.delete_route(route);
    found.request.push_back(seconds_between(begin, clock_type::now()));
    pollfd told{listener.fd(), POLLIN, 0};
    if (poll(&told, 1, 10000) != 1) {
        throw std::runtime_error("a default route is not followed");
    }
    found.change.push_back(seconds_between(begin, clock_type::now()));
}

// p50 and p99, one value of each per round.
struct spread_t {
    bench::series_t p50, p99;
    void add(const std::vector<double> &times) {
        p50.add(bench::quantile(times, 0.5));
        p99.add(bench::quantile(times, 0.99));
    }
    std::string text() const {
        return "p50 " + bench::time_text(p50) + ", p99 " + bench::time_text(p99);
    }
};

struct routes_t {
    bench::series_t list, empty_start, start, rate, processor;
    spread_t still, still_request, burst, burst_request;
    bench::series_t memory_before, memory_after;
};

void follow(bench::World &world, int samples, spread_t &change, spread_t &request) {
    bench::Listener listener(world.tavd.socket());
    followed_t found;
    for (int i = 0; i < samples; ++i) {
        time_default_route(world, listener, i % 2 == 0, found);
    }
    change.add(found.change);
    request.add(found.request);
}

void measure_routes(bench::World &world, int routes, int samples, routes_t &found) {
    world.renew_link();
    found.empty_start.add(time_of_start(world));
    world.stop_daemon();
    kt::ManyRoutes(world.link_index(), "fe80::99").add(0, routes);
    found.list.add(time_of_list(world, "route show"));
    found.start.add(time_of_start(world));
    const pid_t daemon = world.daemon->pid();
    follow(world, samples, found.still, found.still_request);
    found.memory_before.add(bench::memory_of(daemon).private_only);
    {
        const double used = kt::processor_seconds(daemon);
        const time_point begin = clock_type::now();
        const Churn churn(world.link_index(), routes);
        follow(world, samples, found.burst, found.burst_request);
        const double seconds = seconds_between(begin, clock_type::now());
        found.rate.add(static_cast<double>(churn.changes()) / seconds);
        found.processor.add((kt::processor_seconds(daemon) - used) / seconds * 100);
    }
    found.memory_after.add(bench::memory_of(daemon).private_only);
    world.stop_daemon();
}

void print_routes(int routes, const routes_t &found) {
    const std::string with = "with " + std::to_string(routes) + " routes";
    bench::table_head({"8. Full table", "tandrel", "peer or limit", "ratio"});
    bench::table_row(
        {"start to normal operation, without routes", bench::time_text(found.empty_start), "", ""});
    bench::table_row({"start, " + with, bench::time_text(found.start),
                      "`ip -6 route show >/dev/null`: " + bench::time_text(found.list),
                      bench::number_text(found.start.middle() / found.list.middle(), 2)});
    const auto row = [](const std::string &what, const spread_t &change, const spread_t &request) {
        bench::table_row({what, change.text(), "the request to the kernel alone: " + request.text(),
                          "p99 to 10 ms: " + bench::verdict(change.p99.middle() / 10e-3, 1)});
    };
    row("a default route, " + with, found.still, found.still_request);
    row("the same during " + bench::number_text(found.rate.middle(), 0) + " changes a second",
        found.burst, found.burst_request);
    bench::table_row({"processor meanwhile",
                      bench::number_text(found.processor.middle(), 1) + " % of one", "", ""});
    bench::table_row(
        {"private memory, before and after these changes",
         bench::memory_text(found.memory_before) + ", " + bench::memory_text(found.memory_after),
         "", ""});
}

// 100 addresses on each link.
void add_links(bench::World &world, int links) {
    std::string text;
    for (int link = 1; link <= links; ++link) {
        const std::string name = "eth" + std::to_string(link);
        world.device.add_veth(name, "many" + std::to_string(link), world.sandbox.neighbour());
        world.neighbour.set_up("many" + std::to_string(link));
        world.device.set_up(name);
        world.tavd.store().make_interface(link + 1);
        for (int i = 1; i <= 100; ++i) {
            char line[96];
            std::snprintf(static_cast<char *>(line), sizeof line,
                          "address add 2001:db8:%x::%x/64 dev %s\n", static_cast<unsigned>(link),
                          static_cast<unsigned>(i), name.c_str());
            text += static_cast<const char *>(line);
        }
    }
    const std::string path = world.sandbox.directory() + "/many";
    std::ofstream(path) << text;
    bench::run_batch(path);
}

void wait_for_last(bench::World &world, int links) {
    const auto stored = [&] {
        return world.tavd.store().list(kt::paths::addresses(links + 1)).size() == 101;
    };
    if (!kt::eventually(stored)) {
        throw std::runtime_error("the store does not follow");
    }
}

void measure_links(bench::World &world, int links) {
    world.clear_store();
    world.renew_link();
    add_links(world, links);
    const double list = time_of_list(world, "address show");
    bench::series_t first;
    for (int link = links; link > 0; --link) {
        world.tavd.store().make_interface(link + 1);
    }
    const time_point begin = clock_type::now();
    world.start_daemon();
    std::size_t stored = 0;
    const auto wanted = static_cast<std::size_t>(links) * 101;
    while (stored < wanted) {
        usleep(50000);
        stored = 0;
        for (int link = 1; link <= links; ++link) {
            stored += world.tavd.store().list(kt::paths::addresses(link + 1)).size();
        }
    }
    first.add(seconds_between(begin, clock_type::now()));
    bench::table_row(
        {"start with " + std::to_string(links * 100) + " addresses on " + std::to_string(links) +
             " links, none of them stored yet",
         bench::time_text(first),
         "`ip -6 address show >/dev/null`: " + bench::number_text(list * 1e3, 0) + " ms", ""});
    world.stop_daemon();
    // Of the links that are all stored, one address is missing.
    world.tavd.store().remove(kt::paths::address(links + 1, "1"));
    bench::series_t second;
    const time_point again = clock_type::now();
    world.start_daemon();
    wait_for_last(world, links);
    second.add(seconds_between(again, clock_type::now()));
    bench::table_row({"the same, all but one of them stored", bench::time_text(second), "", ""});
    world.stop_daemon();
}

} // namespace

int main(int argc, char **argv) {
    const bench::options_t options = bench::parse_options(
        argc, argv, "A full routing table (row 8); --samples is the number of routes",
        {3, 200000, "normal", ""});
    try {
        const bool quick = options.samples < 10000;
        bench::World world(options.durability);
        routes_t found;
        for (int round = 0; round < options.rounds; ++round) {
            measure_routes(world, options.samples, quick ? 4 : 100, found);
        }
        print_routes(options.samples, found);
        measure_links(world, quick ? 2 : 100);
        return 0;
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "%s\n", failure.what());
        return 1;
    }
}
