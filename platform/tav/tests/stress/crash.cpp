// Kills the service again and again while clients write, and checks the store afterwards: it must
// have everything that was acknowledged, and no partial transaction.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <random>
#include <stdexcept>
#include <thread>

#include "stress/service.h"

namespace {

using Strings = std::vector<std::string>;

// Transactions of one client have the numbers 1, 2, 3, ... Each writes the same number to several
// leaves: two fixed ones, one whose value is often larger than a page, and one of a ring, so that
// older transactions can be checked as well.
constexpr int ring = 40;

std::string padding(int number) {
    return std::string(static_cast<std::size_t>(number) * 37 % 9000,
                       static_cast<char>('a' + number % 26));
}

struct Writer {
    std::string node;
    std::atomic<int> acknowledged{0};

    Strings paths(int number) const {
        return {node + "/a", node + "/b", node + "/padded",
                node + "/ring/" + std::to_string(number % ring)};
    }

    // Until the service is gone.
    void write() {
        stress::Client client;
        for (int number = acknowledged + 1; client.tav.handle != nullptr; ++number) {
            const std::string text = std::to_string(number);
            const std::vector<toolkit::CElement> values{
                {text, -1}, {text, -1}, {text + padding(number), -1}, {text, -1}};
            std::vector<api_status_t> statuses;
            if (client.tav.set_leaves(paths(number), values, {}, statuses, "") != 0 ||
                statuses.front() != api_status_ok) {
                return;
            }
            acknowledged = number;
        }
    }
};

struct Counts {
    long kills = 0;
    long acknowledged = 0;
    long lost = 0;
    long partial = 0;
    long kept_unasked = 0; // committed, but no longer acknowledged
};

int number_in(const std::string &text) {
    return text.empty() ? 0 : std::atoi(text.c_str());
}

// Compares the store with what was acknowledged to the writer, and lets it continue from there.
void check(stress::Client &client, Writer &writer, Counts &counts) {
    Strings all{writer.node + "/a", writer.node + "/b", writer.node + "/padded"};
    for (int slot = 0; slot < ring; ++slot) {
        all.push_back(writer.node + "/ring/" + std::to_string(slot));
    }
    std::vector<api_status_t> statuses;
    std::vector<toolkit::CElement> values;
    std::vector<element_property_t> properties;
    if (client.tav.get_leaves(all, statuses, values, properties) != 0) {
        throw std::runtime_error("the service cannot be read after its restart");
    }
    const int there = number_in(values[0].to_string());
    bool whole = values[1].to_string() == values[0].to_string() &&
                 (there == 0 || values[2].to_string() == std::to_string(there) + padding(there));
    for (int number = std::max(1, there - ring + 1); number <= there; ++number) {
        const std::size_t slot = 3 + static_cast<std::size_t>(number % ring);
        whole = whole && values[slot].to_string() == std::to_string(number);
    }
    // A slot that is ahead of the rest belongs to a partial transaction.
    for (std::size_t slot = 3; slot < values.size(); ++slot) {
        whole = whole && number_in(values[slot].to_string()) <= there;
    }
    counts.partial += whole ? 0 : 1;
    counts.lost += std::max(0, writer.acknowledged - there);
    counts.kept_unasked += std::max(0, there - writer.acknowledged);
    writer.acknowledged = there;
}

void round(stress::Service &service, std::vector<std::unique_ptr<Writer>> &writers, Counts &counts,
           std::mt19937 &random) {
    long before = 0;
    std::vector<std::thread> threads;
    for (const auto &writer : writers) {
        before += writer->acknowledged;
        threads.emplace_back([&writer] { writer->write(); });
    }
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 120000));
    service.kill();
    ++counts.kills;
    for (std::thread &thread : threads) {
        thread.join();
    }
    for (const auto &writer : writers) {
        counts.acknowledged += writer->acknowledged;
    }
    counts.acknowledged -= before;
    if (random() % 4 == 0) {
        // While it starts and reads the database as the last kill left it.
        service.start(false);
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 20000));
        service.kill();
        ++counts.kills;
    }
    service.start();
    stress::Client client;
    for (const auto &writer : writers) {
        check(client, *writer, counts);
    }
}

} // namespace

int main(int argc, char **argv) {
    CLI::App app{"Kills the settings service while clients write, and looks at what is left."};
    int kills = 20;
    int clients = 4;
    unsigned int seed = std::random_device()();
    std::string durability = "full";
    std::string program = TAVD_PROGRAM;
    app.add_option("--kills", kills, "how often")->capture_default_str();
    app.add_option("--clients", clients, "that write at the same time")->capture_default_str();
    app.add_option("--seed", seed, "of the random times");
    app.add_option("--durability", durability, "full or normal")->capture_default_str();
    app.add_option("--service", program, "another service than the one that was built");
    CLI11_PARSE(app, argc, argv);
    try {
        stress::Service service(program, {"--database", "%store.db", "--durability", durability});
        std::mt19937 random(seed);
        std::vector<std::unique_ptr<Writer>> writers;
        for (int i = 0; i < clients; ++i) {
            writers.push_back(std::make_unique<Writer>());
            writers.back()->node = "/crash/" + std::to_string(i);
        }
        Counts counts;
        service.start();
        while (counts.kills < kills) {
            round(service, writers, counts, random);
        }
        std::printf("%ld kills (%d clients, durability %s, seed %u): %ld acknowledged writes, "
                    "%ld lost, %ld partial transactions, %ld kept that were not acknowledged\n",
                    counts.kills, clients, durability.c_str(), seed, counts.acknowledged,
                    counts.lost, counts.partial, counts.kept_unasked);
        return counts.lost == 0 && counts.partial == 0 && counts.acknowledged > 0 ? 0 : 1;
    } catch (const std::exception &error) {
        std::fprintf(stderr, "seed %u: %s\n", seed, error.what());
        return 1;
    }
}
