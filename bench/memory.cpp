// The daemon's memory at rest and with many addresses, compared with systemd-networkd and
// keepalived; how often it wakes up; and whether its memory grows over many events.

#include <algorithm>
#include <cstdio>
#include <exception>
#include <stdexcept>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/footprint.h"
#include "support/numbers.h"
#include "support/peers.h"
#include "support/world.h"

namespace {

struct use_t {
    bench::series_t resident, proportional, private_only;
    void add(const bench::memory_t &memory) {
        resident.add(memory.resident);
        proportional.add(memory.proportional);
        private_only.add(memory.private_only);
    }
};

struct comparison_t {
    use_t detached, daemon, service, networkd, keepalived;
};

// The daemon as it runs without -d: the memory that its start touched belongs to processes that
// have exited.
class Detached {
public:
    explicit Detached(bench::World &world) : invoked(world.start_daemon({})) {
        const auto stays = [&] {
            const auto all = world.sandbox.processes();
            const auto is_daemon = [](const auto &process) { return process.name == "tandrel"; };
            const auto found = std::find_if(all.begin(), all.end(), is_daemon);
            number = found == all.end() ? -1 : found->pid;
            return std::count_if(all.begin(), all.end(), is_daemon) == 1;
        };
        if (invoked.wait_exit() != 0 || !kt::eventually(stays)) {
            throw std::runtime_error("the daemon does not detach itself");
        }
    }
    ~Detached() {
        kill(number, SIGTERM);
        waitpid(number, nullptr, 0); // the sandbox's orphans are this process's children
    }
    Detached(const Detached &) = delete;
    Detached &operator=(const Detached &) = delete;

    pid_t pid() const { return number; }

private:
    kt::Process &invoked;
    pid_t number = -1;
};

// The work after the last address must be finished.
void rest() {
    sleep(1);
}

void measure(bench::World &world, int count, comparison_t &found) {
    bench::Watcher watcher;
    const auto wanted = static_cast<std::size_t>(count);
    world.clear_store();
    if (count > 0) {
        world.store_static(count);
    }
    world.renew_link();
    world.start_daemon();
    world.wait_for_stored(wanted + 1);
    rest();
    found.daemon.add(bench::memory_of(world.daemon->pid()));
    found.service.add(bench::memory_of(world.tavd.pid()));
    world.stop_daemon();

    world.renew_link();
    {
        const Detached daemon(world);
        world.wait_for_stored(wanted + 1);
        rest();
        found.detached.add(bench::memory_of(daemon.pid()));
    }

    world.renew_link();
    watcher.drain();
    bench::Networkd networkd(world.sandbox, count);
    networkd.begun();
    watcher.wait_for_addresses(wanted);
    rest();
    found.networkd.add(bench::memory_of(networkd.pid()));
    networkd.stop();

    world.renew_link();
    bench::Keepalived keepalived(world.sandbox, count);
    keepalived.elected();
    rest();
    found.keepalived.add(bench::memory_of(keepalived.worker()));
    keepalived.stop();
}

void print(int count, const comparison_t &found) {
    const std::string name =
        count == 0 ? "6. at rest" : "6. with " + std::to_string(count) + " addresses";
    const auto row = [&](const std::string &who, const use_t &use, const std::string &ratio) {
        bench::table_row({name, who, bench::memory_text(use.resident),
                          bench::memory_text(use.proportional),
                          bench::memory_text(use.private_only), ratio});
    };
    const auto verdicts = [&](const use_t &use) {
        return "resident to networkd's: " +
               bench::verdict(use.resident.middle() / found.networkd.resident.middle(), 0.4) +
               "; private to 1 MB: " + bench::verdict(use.private_only.middle() / 1024, 1);
    };
    row("tandrel, detached", found.detached, count == 0 ? verdicts(found.detached) : "");
    row("tandrel -d", found.daemon, count == 0 ? verdicts(found.daemon) : "");
    row("tavd", found.service, "");
    row("systemd-networkd", found.networkd, "");
    row("keepalived, the working process", found.keepalived, "");
}

// Nothing happens but the 30-second select, whose ping waits for its answer.
void print_wakeups(bench::World &world, unsigned minutes) {
    world.clear_store();
    world.renew_link();
    world.start_daemon();
    world.wait_for_stored(1);
    sleep(5);
    const std::uint64_t before = bench::sleeps_of(world.daemon->pid());
    sleep(60 * minutes);
    const double sleeps = static_cast<double>(bench::sleeps_of(world.daemon->pid()) - before);
    world.stop_daemon();
    bench::table_row({"6. at rest, sleeps a minute", "tandrel",
                      bench::number_text(sleeps / minutes, 1), "", "",
                      "2 are two waits, each ended by its time limit: " +
                          bench::verdict(sleeps / minutes / 2, 1)});
}

// Addresses are added and removed in the kernel, in batches that the daemon can handle in time.
void print_growth(bench::World &world, int events) {
    constexpr int batch = 200;
    world.clear_store();
    world.renew_link();
    world.start_daemon();
    world.wait_for_stored(1);
    bench::Requester kernel(world.link_index());
    double early = 0;
    for (int done = 0; done < events; done += 2 * batch) {
        for (int i = 1; i <= batch; ++i) {
            kernel.add(bench::address_text(i));
        }
        world.wait_for_stored(batch + 1);
        for (int i = 1; i <= batch; ++i) {
            kernel.remove(bench::address_text(i));
        }
        world.wait_for_stored(1);
        if (early == 0 && done >= events / 100) {
            early = bench::memory_of(world.daemon->pid()).private_only;
        }
    }
    const double late = bench::memory_of(world.daemon->pid()).private_only;
    world.stop_daemon();
    bench::table_row({"6. after " + std::to_string(events) + " events", "tandrel", "", "",
                      bench::number_text(late, 0) + " KB, " + bench::number_text(early, 0) +
                          " KB after the first hundredth",
                      "growth: " + bench::number_text(late - early, 0) + " KB"});
}

} // namespace

int main(int argc, char **argv) {
    const bench::options_t options = bench::parse_options(
        argc, argv,
        "Memory and wake-ups (row 6); --samples is the number of events of the growth measurement",
        {5, 1000000, "normal", ""});
    try {
        const bool quick = options.samples < 10000;
        bench::World world(options.durability);
        bench::table_head({"Memory", "process", "resident", "proportional", "private", "ratio"});
        for (const int count : {0, quick ? 10 : 1000}) {
            comparison_t found;
            for (int round = 0; round < options.rounds; ++round) {
                measure(world, count, found);
            }
            print(count, found);
        }
        const double size = static_cast<double>(bench::stripped_size(kt::program("TANDREL"))) / 1e3;
        bench::series_t sizes;
        sizes.add(size);
        bench::table_row({"6. stripped program", "tandrel", bench::memory_text(sizes), "", "",
                          "to 300 KB: " + bench::verdict(size / 300, 1)});
        if (!quick) {
            print_wakeups(world, 2);
        }
        print_growth(world, options.samples);
        return 0;
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "%s\n", failure.what());
        return 1;
    }
}
