// Records what concurrent clients write and read through the library, and checks that every read
// could have happened at some moment between its begin and its end: that none is older than a write
// that was acknowledged before, whether it came from the service or from a read-ahead.
#include <CLI/CLI.hpp>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <random>
#include <thread>

#include "client/admin.h"
#include "stress/service.h"
#include "support/recorded.h"

namespace {

using tavtest::History;
using Random = std::mt19937;
using Strings = std::vector<std::string>;

constexpr unsigned int nodes = 16;
const std::string top = "/shelf";

std::string node_path(unsigned int node) {
    return top + "/" + std::to_string(node + 1);
}

History::Time now() {
    return std::chrono::steady_clock::now().time_since_epoch().count();
}

// What one thread has done, by node.
struct Record {
    std::vector<History> of = std::vector<History>(nodes);
    long reads = 0;
    std::string fault;
};

// Two leaves with the same value are read at once: they were written at once.
void read_node(stress::Client &client, unsigned int node, Record &record) {
    const std::string path = node_path(node);
    Strings paths{path + "/left", path + "/right"};
    std::vector<api_status_t> statuses;
    std::vector<toolkit::CElement> values;
    std::vector<element_property_t> properties;
    History::Read read;
    read.begin = now();
    const int result = client.tav.get_leaves(paths, statuses, values, properties);
    read.end = now();
    if (result != 0 || statuses[0] != statuses[1] ||
        values[0].to_string() != values[1].to_string()) {
        record.fault = result != 0 ? "a read failed" : "a read saw half a transaction";
        return;
    }
    read.value = statuses[0] == api_status_ok ? std::stoull(values[0].to_string()) : 0;
    record.of[node].reads.push_back(read);
    ++record.reads;
}

// A listing is a read of every node's existence.
void list_all(stress::Client &client, Record &record) {
    api_status_t status = api_status_none;
    std::vector<toolkit::child_t> children;
    History::Read read;
    read.begin = now();
    const int result = client.tav.list_node(top, status, children);
    read.end = now();
    if (result != 0 || status != api_status_ok) {
        record.fault = "a listing failed";
        return;
    }
    std::vector<bool> there(nodes, false);
    for (const toolkit::child_t &child : children) {
        there.at(std::stoul(child.first) - 1) = true;
    }
    for (unsigned int node = 0; node < nodes; ++node) {
        read.any = there[node];
        record.of[node].reads.push_back(read);
    }
    ++record.reads;
}

void pause(Random &random, unsigned int most_us) {
    std::this_thread::sleep_for(std::chrono::microseconds(random() % (most_us + 1)));
}

// Writes and removes the nodes that are this writer's, and sometimes reads what it has written.
void write_nodes(unsigned int writer, unsigned int writers, unsigned int seed,
                 const std::atomic<bool> &stop, Record &record) {
    stress::Client client;
    Random random(seed);
    std::uint64_t next = 1;
    while (!stop && record.fault.empty()) {
        const auto choice = static_cast<unsigned int>(random());
        const unsigned int node = choice % (nodes / writers) * writers + writer;
        History &history = record.of[node];
        const bool there = !history.writes.empty() && history.writes.back().value != 0;
        const bool removes = there && random() % 3 == 0;
        const std::string value = std::to_string(next);
        const toolkit::CElement element(value, -1);
        std::vector<api_status_t> statuses(1);
        History::Write write;
        write.value = removes ? 0 : next++;
        write.begin = now();
        const int result =
            removes ? client.tav.remove_node(node_path(node), statuses[0], "")
                    : client.tav.set_leaves({node_path(node) + "/left", node_path(node) + "/right"},
                                            {element, element},
                                            {mlr_tribool_unset, mlr_tribool_unset}, statuses, "");
        write.end = now();
        if (result != 0 || statuses[0] != api_status_ok) {
            record.fault = "a write failed";
            return;
        }
        history.writes.push_back(write);
        for (unsigned int i = 0; i < random() % 4; ++i) {
            list_all(client, record);
            read_node(client, random() % 2 == 0 ? node : choice / nodes % nodes, record);
        }
        pause(random, random() % 8 == 0 ? 3000 : 100);
    }
}

// Reads like a program that synchronises: a listing, then what it names.
void read_nodes(unsigned int seed, const std::atomic<bool> &stop, Record &record) {
    stress::Client client;
    Random random(seed);
    while (!stop && record.fault.empty()) {
        list_all(client, record);
        for (unsigned int i = 0; i < 2 * nodes && record.fault.empty(); ++i) {
            read_node(client, static_cast<unsigned int>(random() % nodes), record);
        }
        pause(random, 50);
    }
}

// Empty if all is well.
std::string check(const std::vector<Record> &records) {
    for (const Record &record : records) {
        if (!record.fault.empty()) {
            return record.fault;
        }
    }
    for (unsigned int node = 0; node < nodes; ++node) {
        History all;
        for (const Record &record : records) {
            const History &part = record.of[node];
            all.writes.insert(all.writes.end(), part.writes.begin(), part.writes.end());
            all.reads.insert(all.reads.end(), part.reads.begin(), part.reads.end());
        }
        const std::string fault = all.fault();
        if (!fault.empty()) {
            return node_path(node) + ": " + fault;
        }
    }
    return {};
}

bool run(const char *name, const Strings &options, std::chrono::seconds span, unsigned int seed) {
    constexpr unsigned int writers = 2;
    constexpr unsigned int readers = 4;
    Strings all = options;
    all.insert(all.end(), {"--initial-node", top});
    stress::Service service(TAVD_PROGRAM, all);
    service.start();
    std::vector<Record> records(writers + readers);
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (unsigned int i = 0; i < writers; ++i) {
        threads.emplace_back([&, i] { write_nodes(i, writers, seed + i, stop, records[i]); });
    }
    for (unsigned int i = writers; i < writers + readers; ++i) {
        threads.emplace_back([&, i] { read_nodes(seed + i, stop, records[i]); });
    }
    std::this_thread::sleep_for(span);
    stop = true;
    for (std::thread &thread : threads) {
        thread.join();
    }
    std::size_t writes = 0;
    long reads = 0;
    for (const Record &record : records) {
        reads += record.reads;
        for (const History &history : record.of) {
            writes += history.writes.size();
        }
    }
    const std::string fault = check(records);
    std::printf("%s: %zu writes and %ld reads (seed %u): %s\n", name, writes, reads, seed,
                fault.empty() ? "each read is right" : fault.c_str());
    return fault.empty() && writes > 0 && reads > 0;
}

} // namespace

int main(int argc, char **argv) {
    CLI::App app{"Checks that no read is older than a write that was acknowledged before it."};
    int seconds = 10;
    unsigned int seed = std::random_device()();
    app.add_option("--seconds", seconds, "for each store")->capture_default_str();
    app.add_option("--seed", seed, "of the random choices");
    CLI11_PARSE(app, argc, argv);
    try {
        const std::chrono::seconds span(seconds);
        const bool right = run("in memory", {"--memory"}, span, seed);
        return run("on disk", {"--database", "%store.db"}, span, seed) && right ? 0 : 1;
    } catch (const std::exception &error) {
        std::fprintf(stderr, "seed %u: %s\n", seed, error.what());
        return 1;
    }
}
