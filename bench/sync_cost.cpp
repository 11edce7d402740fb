// The cost of a full synchronisation without a change: the engine over the real store, with a table
// filled by the benchmark, because the kernel takes half a minute for 10,000 addresses on one link.
// Instructions are those of the daemon, counted by callgrind.

#include <cstdio>
#include <cstring>
#include <exception>
#include <iostream>
#include <stdexcept>

#include <unistd.h>

#include "netlink/channel.h"
#include "support/numbers.h"
#include "support/plot.h"
#include "support/world.h"
#include "sync/sync.h"

namespace {

struct Engine : CSync {
    using CSync::CSync;
    using CSync::interfaces;
    using CSync::state;
    using CSync::sync_all;
};

// The addresses, distributed over `interfaces` links. On each link `unanswered` deletions of other
// addresses have been sent, which the kernel has not answered yet.
struct size_case_t {
    int addresses;
    int interfaces;
    int unanswered = 0;
};

void fill_store(kt::Store &store, const size_case_t &size) {
    for (int number = 1; number <= size.interfaces; ++number) {
        store.make_interface(number);
    }
    kt::Store::pairs_t leaves;
    for (int i = 0; i < size.addresses; ++i) {
        const int number = i % size.interfaces + 1;
        const std::string node = std::to_string(i / size.interfaces + 1);
        leaves.emplace_back(kt::paths::address_value(number, node), bench::address_text(i + 1));
        leaves.emplace_back(kt::paths::type_value(number, node), "Static");
    }
    store.write(leaves);
}

void fill_table(Engine &engine, const size_case_t &size) {
    for (int i = 0; i < size.addresses; ++i) {
        const int index = i % size.interfaces;
        ifcfg_t &entry = engine.interfaces[index + 1];
        entry.iface.ifindex = index + 1;
        entry.iface.name = "eth" + std::to_string(index);
        CFullAddress address;
        static_cast<CAddress &>(address) = CSync::str_to_addr(bench::address_text(i + 1), true);
        address.ifindex = index + 1;
        address.type = type_static;
        address.node = std::to_string(i / size.interfaces + 1);
        entry.addresses.push_back(address);
    }
    for (auto &item : engine.interfaces) {
        for (int i = 1; i <= size.unanswered; ++i) {
            const CAddress gone = CSync::str_to_addr(bench::address_text(size.addresses + i), true);
            item.second.deletions[gone].unanswered = 1;
        }
    }
    engine.state = 4;
}

// In a separate process, over the store that TAV_SOCKET names: prints the seconds of each run.
int run_once(const size_case_t &size, int runs) {
    toolkit::CTav tav(mlr_init());
    CNetlink channel;
    Engine engine(&tav, &channel, "eth");
    fill_table(engine, size);
    for (int i = 0; i < runs; ++i) {
        const bench::time_point begin = bench::clock_type::now();
        engine.sync_all();
        std::cout << bench::seconds_between(begin, bench::clock_type::now()) << '\n';
    }
    mlr_close(tav.handle);
    return 0;
}

std::vector<std::string> once(const size_case_t &size, int runs) {
    return {"/proc/" + std::to_string(getpid()) + "/exe",
            "--once",
            std::to_string(size.addresses),
            std::to_string(size.interfaces),
            std::to_string(runs),
            std::to_string(size.unanswered)};
}

std::vector<kt::line_t> lines_of(bench::World &world, const std::vector<std::string> &arguments,
                                 bool of_errors) {
    kt::spawn_options_t options;
    options.environment["TAV_SOCKET"] = world.tavd.socket();
    kt::Process process(world.sandbox, arguments, options);
    if (process.wait_exit(std::chrono::minutes(10)) != 0) {
        throw std::runtime_error(arguments[0] + " failed:\n" + process.errors().tail(20));
    }
    process.output().wait_finished();
    return (of_errors ? process.errors() : process.output()).lines();
}

double seconds_of(bench::World &world, const size_case_t &size) {
    std::vector<double> all;
    for (const auto &line : lines_of(world, once(size, 5), false)) {
        all.push_back(std::strtod(line.text.c_str(), nullptr));
    }
    return bench::median(all);
}

double instructions_of(bench::World &world, const size_case_t &size) {
    std::vector<std::string> arguments = once(size, 1);
    arguments.insert(arguments.begin(),
                     {"/usr/bin/valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null",
                      "--toggle-collect=CSync::sync_all()"});
    for (const auto &line : lines_of(world, arguments, true)) {
        const std::size_t at = line.text.find("Collected : ");
        if (at != std::string::npos) {
            return std::strtod(line.text.c_str() + at + std::strlen("Collected : "), nullptr);
        }
    }
    throw std::runtime_error("callgrind counted nothing");
}

struct point_t {
    size_case_t size;
    bench::series_t seconds; // per address
    double instructions;     // per address
};

point_t measure(const bench::options_t &options, const size_case_t &size) {
    bench::World world(options.durability);
    fill_store(world.tavd.store(), size);
    point_t point{size, {}, instructions_of(world, size) / size.addresses};
    for (int round = 0; round < options.rounds; ++round) {
        point.seconds.add(seconds_of(world, size) / size.addresses);
    }
    return point;
}

void print(const bench::options_t &options, const std::string &plot_file) {
    bench::table_head({"5. Nothing to change", "time per address", "instructions per address",
                       "to 100 addresses"});
    std::vector<bench::line_t> instructions;
    std::vector<bench::line_t> times;
    for (const int interfaces : {1, 8, 32}) {
        const std::string name =
            std::to_string(interfaces) + (interfaces == 1 ? " interface" : " interfaces");
        instructions.push_back({name, {}});
        times.push_back({name, {}});
        double at_hundred = 0;
        for (const int addresses : {10, 30, 100, 300, 1000, 3000, 10000}) {
            if (addresses < interfaces || addresses > options.samples) {
                continue;
            }
            const point_t point = measure(options, {addresses, interfaces});
            at_hundred = addresses == 100 ? point.instructions : at_hundred;
            instructions.back().points.emplace_back(addresses, point.instructions / 1000);
            times.back().points.emplace_back(addresses, point.seconds.middle() * 1e6);
            bench::table_row(
                {std::to_string(addresses) + " addresses, " + name, bench::time_text(point.seconds),
                 std::to_string(static_cast<long>(point.instructions)),
                 addresses == 10000 ? bench::verdict(point.instructions / at_hundred, 1.3) : ""});
        }
    }
    for (const int addresses : {1000, 2000, 4000}) {
        if (addresses <= options.samples) {
            const point_t point = measure(options, {addresses, 1, addresses});
            bench::table_row(
                {std::to_string(addresses) + " addresses, as many deletions unanswered",
                 bench::time_text(point.seconds),
                 std::to_string(static_cast<long>(point.instructions)), ""});
        }
    }
    if (!plot_file.empty()) {
        bench::write_plot(plot_file, {{"Thousand instructions per address", instructions},
                                      {"Microseconds per address", times}});
    }
}

} // namespace

int main(int argc, char **argv) {
    try {
        if (argc == 6 && std::strcmp(argv[1], "--once") == 0) {
            return run_once({std::atoi(argv[2]), std::atoi(argv[3]), std::atoi(argv[5])},
                            std::atoi(argv[4]));
        }
        const bench::options_t options = bench::parse_options(
            argc, argv,
            "Cost of a full synchronisation without a change (row 5); --samples is the largest "
            "number of addresses",
            {5, 10000, "normal", ""});
        print(options, options.plot);
        return 0;
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "%s\n", failure.what());
        return 1;
    }
}
