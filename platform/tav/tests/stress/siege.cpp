// All attacks at random, with kills of the service: nothing that was acknowledged may be lost or
// wrong, and memory must come back.
#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdio>
#include <random>
#include <thread>

#include "stress/measure.h"
#include "stress/swarm.h"

namespace {

using Strings = std::vector<std::string>;
using Clock = std::chrono::steady_clock;

constexpr int ring = 50;
constexpr long kill_each = 2; // of so many rounds, the first one included

// What was acknowledged: write N went to slot N % ring. The one after the last may be there, too,
// if its answer was lost.
struct Journal {
    long acknowledged = 0;
    long reads = 0;
    long wrong = 0; // reads of another value than was written last
    long lost = 0;
    stress::Times read_times;
    stress::Times write_times;
    // Of the present round, in microseconds.
    double slowest_read = 0;
    double slowest_write = 0;
};

std::string slot(long number) {
    return "/good/" + std::to_string(number % ring);
}

void note(stress::Times &times, double &slowest, Clock::time_point begin) {
    const double taken = std::chrono::duration<double, std::micro>(Clock::now() - begin).count();
    times.microseconds.push_back(taken);
    slowest = std::max(slowest, taken);
}

// The number in the slot; -1 if the service is gone.
long read(stress::Client &client, const std::string &path) {
    api_status_t status = api_status_none;
    toolkit::CElement value;
    element_property_t property = element_property_none;
    if (client.tav.get_leaf(path, status, value, property) != 0) {
        return -1;
    }
    return status == api_status_ok ? std::atol(value.to_string().c_str()) : 0;
}

// Writes and reads until then, or until the service is gone.
void work(Journal &journal, Clock::time_point end) {
    stress::Client client;
    while (Clock::now() < end && client.tav.handle != nullptr) {
        const long number = journal.acknowledged + 1;
        api_status_t status = api_status_none;
        Clock::time_point begin = Clock::now();
        const toolkit::CElement value(std::to_string(number), -1);
        if (client.tav.set_leaf(slot(number), value, status, mlr_tribool_unset, "") != 0) {
            return;
        }
        note(journal.write_times, journal.slowest_write, begin);
        if (status != api_status_ok) {
            ++journal.wrong; // the disk does not fail here
            continue;
        }
        journal.acknowledged = number;
        for (long back = 0; back < 10 && back < number; ++back) {
            begin = Clock::now();
            const long found = read(client, slot(number - back));
            if (found < 0) {
                return;
            }
            note(journal.read_times, journal.slowest_read, begin);
            ++journal.reads;
            journal.wrong += found == number - back ? 0 : 1;
        }
    }
}

// After a restart.
void check(Journal &journal) {
    stress::Client client;
    const long next = journal.acknowledged + 1;
    const bool one_more = read(client, slot(next)) == next;
    for (long number = std::max(1L, next - ring + 1); number < next; ++number) {
        journal.lost += read(client, slot(number)) == number ? 0 : 1;
    }
    journal.acknowledged += one_more ? 1 : 0;
}

// What is done to the service at the same time.
struct Round {
    bool foreign = false; // a second user can attack, too
    bool kill = false;
    bool print = false;
};

void attack(stress::Service &service, Journal &journal, std::mt19937 &random, const Round &how) {
    std::vector<std::vector<std::unique_ptr<stress::Swarm>>> going;
    // A user has not enough connections for two.
    const auto number = how.foreign ? 1 + random() % 2 : 1;
    const bool first = how.foreign && random() % 2 == 0;
    std::string names;
    for (std::size_t i = 0; i < number; ++i) {
        const auto &all = stress::attacks();
        const stress::Attack &chosen = all[random() % all.size()];
        const bool foreign = i == 0 ? first : !first;
        going.push_back(chosen.begin(service, foreign));
        names += std::string(foreign ? "; another user: " : "; the same user: ") + chosen.name;
    }
    journal.slowest_read = 0;
    journal.slowest_write = 0;
    const auto span = std::chrono::milliseconds(500 + random() % 5000);
    std::thread good([&] { work(journal, Clock::now() + span + std::chrono::seconds(how.kill)); });
    if (how.kill) {
        std::this_thread::sleep_for(span);
        service.kill();
    }
    good.join();
    going.clear();
    if (how.kill) {
        service.start();
        check(journal);
    }
    if (how.print) {
        std::printf("read %6.0f ms, write %6.0f ms, %ld MiB%s\n", journal.slowest_read / 1000,
                    journal.slowest_write / 1000, stress::memory(service) / 1024, names.c_str());
        std::fflush(stdout);
    }
}

// Kilobytes that the service uses when it is left alone.
long quiet_memory(stress::Service &service) {
    stress::tidy();
    std::this_thread::sleep_for(std::chrono::seconds(8)); // it gives memory back after five
    return stress::memory(service);
}

} // namespace

int main(int argc, char **argv) {
    CLI::App app{"Attacks and kills the settings service at random, and checks what was written."};
    int seconds = 20;
    unsigned int seed = std::random_device()();
    std::string durability = "full";
    bool kills = true;
    bool print = false;
    app.add_option("--seconds", seconds, "how long")->capture_default_str();
    app.add_option("--seed", seed, "of what is chosen");
    app.add_option("--durability", durability, "full or normal")->capture_default_str();
    app.add_flag("!--no-kills", kills, "let the service live, and compare its memory");
    app.add_flag("--rounds", print, "print the slowest calls beside each attack");
    CLI11_PARSE(app, argc, argv);
    try {
        const bool foreign = stress::can_be_foreign();
        Strings options{"--database", "%store.db", "--durability", durability};
        if (foreign) {
            const Strings more = stress::foreign_options();
            options.insert(options.end(), more.begin(), more.end());
        }
        stress::Service service(TAVD_PROGRAM, options);
        service.start();
        stress::fill();
        std::mt19937 random(seed);
        Journal journal;
        long before = 0;
        if (!kills) {
            // The attacks add to what is stored: memory is compared after the first ones.
            for (const stress::Attack &attack : stress::attacks()) {
                const auto swarms = attack.begin(service, false);
                work(journal, Clock::now() + std::chrono::seconds(1));
            }
            before = quiet_memory(service);
        }
        long rounds = 0;
        const Clock::time_point end = Clock::now() + std::chrono::seconds(seconds);
        for (; Clock::now() < end || rounds < 2; ++rounds) {
            attack(service, journal, random, {foreign, kills && rounds % kill_each == 0, print});
        }
        const long after = kills ? 0 : quiet_memory(service);
        std::printf("%d s, durability %s, seed %u: %ld kills, %ld acknowledged writes, %ld lost, "
                    "%ld reads, %ld wrong\n",
                    seconds, durability.c_str(), seed,
                    kills ? (rounds + kill_each - 1) / kill_each : 0, journal.acknowledged,
                    journal.lost, journal.reads, journal.wrong);
        if (!kills) {
            std::printf("memory %ld MiB, then %ld\n", before / 1024, after / 1024);
        }
        stress::print_head();
        stress::print("", {journal.read_times, journal.write_times});
        const bool bounded = kills || after * 10 <= before * 11;
        return journal.lost == 0 && journal.wrong == 0 && journal.acknowledged > 0 && bounded ? 0
                                                                                              : 1;
    } catch (const std::exception &error) {
        std::fprintf(stderr, "seed %u: %s\n", seed, error.what());
        return 1;
    }
}
