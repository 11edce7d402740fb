// The instructions that the daemon, its libraries and the service execute for one change in each
// direction, for a synchronisation and for their start, counted by callgrind. Unlike times they do
// not depend on what else the machine does, and most of them are the same on a device.

#include <array>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>

#include <unistd.h>

#include "client/admin.h"
#include "support/listener.h"
#include "support/numbers.h"
#include "support/world.h"

namespace {

constexpr useconds_t settle_us = 400000;

// A directory with a script for each program that runs it under callgrind. The harness starts the
// programs that KT_TANDREL and KT_TAVD name.
class Scripts {
public:
    Scripts() {
        char name[] = "/tmp/bench_instructions_XXXXXX";
        if (mkdtemp(static_cast<char *>(name)) == nullptr) {
            kt::fail("mkdtemp");
        }
        dir = static_cast<char *>(name);
        for (const char *program : {"TANDREL", "TAVD"}) {
            const std::string script = dir + "/" + program;
            std::ofstream(script) << "#!/bin/sh\nexec /usr/bin/valgrind --tool=callgrind"
                                     " --callgrind-out-file='"
                                  << dir << "/%p' '" << kt::program(program) << "' \"$@\"\n";
            std::filesystem::permissions(script, std::filesystem::perms::owner_all);
            setenv((std::string("KT_") + program).c_str(), script.c_str(), 1);
        }
    }
    ~Scripts() { std::filesystem::remove_all(dir); }
    Scripts(const Scripts &) = delete;
    Scripts &operator=(const Scripts &) = delete;
    const std::string &directory() const { return dir; }

private:
    std::string dir;
};

using counts_t = std::map<std::string, double>; // by the file name of program or library

// The instructions of each object in one of callgrind's files. Lines that begin with a number are
// costs; the one after "calls=" counts again what the called function has counted.
counts_t read_counts(const std::string &path) {
    std::ifstream file(path);
    counts_t counts;
    std::map<std::string, std::string> names; // by the number in parentheses
    std::string line, object;
    bool of_call = false;
    while (std::getline(file, line)) {
        if (line.rfind("ob=", 0) == 0 || line.rfind("cob=", 0) == 0) {
            const std::string id = line.substr(line.find('('), line.find(')') - line.find('('));
            const std::size_t name = line.find(' ');
            if (name != std::string::npos) {
                names[id] = line.substr(line.rfind('/') + 1);
            }
            object = line[0] == 'o' ? names[id] : object;
        } else if (line.rfind("calls=", 0) == 0) {
            of_call = true;
        } else if (!line.empty() && std::strchr("+-*0123456789", line[0]) != nullptr) {
            const std::size_t cost = line.find(' ');
            if (!of_call && cost != std::string::npos) {
                counts[object] += std::strtod(line.c_str() + cost, nullptr);
            }
            of_call = false;
        }
    }
    return counts;
}

// One process under callgrind.
class Counted {
public:
    Counted(pid_t process, const std::string &directory)
        : id(process), prefix(directory + "/" + std::to_string(process)) {}

    // What it has executed since the last call.
    counts_t take() {
        const std::string command = "vgdb --pid=" + std::to_string(id) + " dump >/dev/null 2>&1";
        const std::string file = prefix + "." + std::to_string(++number);
        const auto written = [&] { return std::filesystem::exists(file); };
        if (std::system(command.c_str()) != 0 || !kt::eventually(written)) {
            throw std::runtime_error("callgrind does not answer");
        }
        return read_counts(file);
    }

private:
    pid_t id;
    std::string prefix;
    int number = 0;
};

double sum_of(const counts_t &counts, const std::vector<std::string> &beginnings) {
    double sum = 0;
    for (const auto &one : counts) {
        for (const std::string &beginning : beginnings) {
            sum += one.first.rfind(beginning, 0) == 0 ? one.second : 0;
        }
    }
    return sum;
}

// In thousands.
std::string thousands(double count) {
    return bench::number_text(count / 1000, count < 100000 ? 1 : 0);
}

class Measurement {
public:
    Measurement(bench::World &measured, const std::string &directory)
        : world(measured), daemon(world.daemon->pid(), directory),
          service(world.tavd.pid(), directory) {}

    void row(const std::string &what, int times) {
        usleep(settle_us);
        const counts_t ours = daemon.take();
        const counts_t theirs = service.take();
        const auto share = [&](const counts_t &counts, const std::vector<std::string> &objects) {
            return thousands(sum_of(counts, objects) / times);
        };
        bench::table_row({what, share(ours, {""}), share(ours, {"tandrel"}),
                          share(ours, {"libtav"}), share(ours, {"libnl"}), share(theirs, {""}),
                          share(theirs, {"tavd"}), share(theirs, {"libsqlite"})});
    }

private:
    bench::World &world;
    Counted daemon, service;
};

void touch(const bench::Listener &client, const std::string &path) {
    std::vector<api_status_t> statuses;
    tav::transact(client.tav.handle, {tav::Item{tav::ItemKind::touch, path, {}}}, statuses);
    if (statuses.at(0) != api_status_ok) {
        throw std::runtime_error("cannot touch " + path);
    }
}

// Each change is far enough from the last one to be followed alone.
template <class Change>
void repeat(int times, Change change) {
    for (int i = 1; i <= times; ++i) {
        change(i);
        usleep(settle_us);
    }
}

void measure(bench::World &world, const std::string &directory, int samples) {
    Measurement measurement(world, directory);
    kt::Store &store = world.tavd.store();
    bench::Requester kernel(world.link_index());
    bench::table_head({"Thousand instructions", "daemon, all", "its program", "libtav", "libnl",
                       "service, all", "its program", "SQLite"});
    measurement.row("start, with what the system's loader does", 1);
    repeat(samples, [&](int i) { kernel.add(bench::address_text(i)); });
    measurement.row("an address appears in the kernel", samples);
    repeat(samples, [&](int i) { kernel.remove(bench::address_text(i)); });
    measurement.row("it disappears there", samples);
    repeat(samples, [&](int i) {
        store.set_address(1, "bench" + std::to_string(i), bench::address_text(i));
    });
    measurement.row("a Static address is stored", samples);
    repeat(samples, [&](int i) { store.remove_address(1, "bench" + std::to_string(i)); });
    measurement.row("it is removed from the store", samples);

    const bench::Listener client(world.tavd.socket());
    world.store_static(100);
    usleep(10 * settle_us);
    measurement.row("100 Static addresses are stored at once", 1);
    repeat(samples, [&](int) { touch(client, kt::paths::type_value(1, "1")); });
    measurement.row("a synchronisation of 100 addresses", samples);
}

} // namespace

int main(int argc, char **argv) {
    const bench::options_t options = bench::parse_options(
        argc, argv,
        "Instructions for a change, a synchronisation and the start; --samples is the number of "
        "changes",
        {1, 10, "normal", ""});
    try {
        const Scripts scripts;
        bench::World world(options.durability);
        world.renew_link();
        world.start_daemon();
        world.wait_for_stored(1);
        measure(world, scripts.directory(), options.samples);
        world.stop_daemon();
        return 0;
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "%s\n", failure.what());
        return 1;
    }
}
