// How long many addresses take: from the store into the kernel, measured from the start of the
// daemon and compared with `ip -batch`, systemd-networkd and keepalived; and from the kernel, where
// `ip -batch` adds them, into the store, compared with `ip -batch` alone.

#include <cstdio>
#include <exception>
#include <stdexcept>

#include "support/numbers.h"
#include "support/peers.h"
#include "support/world.h"

namespace {

using bench::clock_type;
using bench::seconds_between;
using bench::time_point;

struct start_t {
    bench::series_t daemon, ip, networkd, keepalived;
};

// Each on a new link, so that nothing of the others is left.
void start_round(bench::World &world, int count, start_t &found) {
    bench::Watcher watcher;
    const auto fresh = [&] {
        world.renew_link();
        watcher.drain();
    };
    const auto wanted = static_cast<std::size_t>(count);

    fresh();
    time_point begin = clock_type::now();
    world.start_daemon();
    found.daemon.add(seconds_between(begin, watcher.wait_for_addresses(wanted)));
    world.wait_for_stored(wanted + 1);
    world.stop_daemon();

    fresh();
    const std::string batch = bench::write_batch(world.sandbox, count);
    begin = clock_type::now();
    bench::run_batch(batch);
    found.ip.add(seconds_between(begin, watcher.wait_for_addresses(wanted)));

    fresh();
    bench::Networkd networkd(world.sandbox, count);
    begin = networkd.begun();
    found.networkd.add(seconds_between(begin, watcher.wait_for_addresses(wanted)));
    networkd.stop();

    fresh();
    bench::Keepalived keepalived(world.sandbox, count);
    const time_point last = watcher.wait_for_addresses(wanted);
    found.keepalived.add(seconds_between(keepalived.elected(), last));
    keepalived.stop();
}

void row_three(const bench::options_t &options, int count) {
    bench::World world(options.durability);
    world.store_static(count);
    start_t found;
    for (int round = 0; round < options.rounds; ++round) {
        start_round(world, count, found);
    }
    const std::string name = "3. " + std::to_string(count) + " stored addresses into the kernel";
    const double ours = found.daemon.middle();
    const auto row = [&](const std::string &peer, const bench::series_t &series, double most) {
        const double ratio = ours / series.middle();
        bench::table_row({name, bench::time_text(found.daemon),
                          peer + ": " + bench::time_text(series),
                          most > 0 ? bench::verdict(ratio, most) : bench::number_text(ratio, 2)});
    };
    const bool judged = count == 1000;
    row("`ip -batch`", found.ip, judged ? 1.2 : 0);
    row("systemd-networkd", found.networkd, judged ? 1.0 : 0);
    row("keepalived, from its election on", found.keepalived, 0);
}

void row_four(const bench::options_t &options, int count) {
    bench::World world(options.durability);
    const std::string batch = bench::write_batch(world.sandbox, count);
    bench::series_t alone;
    bench::series_t ip_beside;
    bench::series_t followed;
    for (int round = 0; round < options.rounds; ++round) {
        world.renew_link();
        alone.add(bench::run_batch(batch));

        world.renew_link();
        world.clear_store();
        world.start_daemon();
        world.wait_for_stored(1);
        const time_point begin = clock_type::now();
        ip_beside.add(bench::run_batch(batch));
        world.wait_for_stored(static_cast<std::size_t>(count) + 1);
        followed.add(seconds_between(begin, clock_type::now()));
        world.stop_daemon();
    }
    const std::string name = "4. " + std::to_string(count) + " kernel addresses into the store";
    bench::table_row({name, bench::time_text(followed),
                      "`ip -batch` alone: " + bench::time_text(alone),
                      bench::verdict(followed.middle() / alone.middle(), 1.1)});
    bench::table_row(
        {"4. the same `ip -batch` beside the daemon", bench::time_text(ip_beside), "", ""});
}

} // namespace

int main(int argc, char **argv) {
    const bench::options_t options =
        bench::parse_options(argc, argv,
                             "Many addresses in both directions (rows 3, 4); --samples "
                             "is the number of addresses of the large case",
                             {5, 1000, "normal", ""});
    try {
        bench::table_head({"Many addresses", "tandrel", "peer", "ratio"});
        if (options.samples > 100) {
            row_three(options, 100);
        }
        row_three(options, options.samples);
        row_four(options, options.samples);
        return 0;
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "%s\n", failure.what());
        return 1;
    }
}
