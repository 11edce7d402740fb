// Kills the service again and again while clients write, and checks the store afterwards: it must
// have everything that was acknowledged, and no partial transaction. Of a change that must be
// confirmed it has all or nothing, and nothing once the term has passed, unless it was confirmed.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <random>
#include <stdexcept>
#include <thread>

#include "client/admin.h"
#include "stress/service.h"

namespace {

using Strings = std::vector<std::string>;
using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;
using std::chrono::milliseconds;

constexpr milliseconds term{100};

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
    // Of the changes that must be confirmed.
    long changed = 0;   // acknowledged before the kill
    long confirmed = 0; // acknowledged before the kill
    long new_after = 0; // found after the kill, within the term
    long wrong = 0;
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

tav::Item set(const std::string &path, const std::string &text) {
    return {tav::ItemKind::set, path, {element_type_string, text, 77}};
}

// Leaves that are changed, removed and made; one is larger than a page.
std::vector<tav::Item> steps(const std::string &mark, bool old) {
    std::vector<tav::Item> items{set("/n/a", mark), set("/n/large", std::string(5000, mark[0])),
                                 set(old ? "/n/old/x" : "/n/new/x", mark)};
    items.push_back({tav::ItemKind::clear, old ? "/n/new" : "/n/old", {}});
    return items;
}

std::string picture_of_n() {
    stress::Client client;
    api_status_t status = api_status_none;
    std::vector<tav::DumpElement> elements;
    if (tav::dump(client.tav.handle, "/n", status, elements) != 0 || status != api_status_ok) {
        throw std::runtime_error("the store cannot be read");
    }
    std::string all;
    for (const tav::DumpElement &element : elements) {
        all += element.path + "=" + element.value.text + "@" + std::to_string(element.value.time) +
               "\n";
    }
    return all;
}

void write(const std::vector<tav::Item> &items) {
    stress::Client client;
    std::vector<api_status_t> statuses;
    if (tav::transact(client.tav.handle, items, statuses) != 0 ||
        statuses != std::vector<api_status_t>(items.size(), api_status_ok)) {
        throw std::runtime_error("the store cannot be written");
    }
}

std::size_t waiting() {
    stress::Client client;
    std::vector<tav::PendingChange> all;
    if (tav::pending(client.tav.handle, all) != 0) {
        throw std::runtime_error("the store does not say what waits");
    }
    return all.size();
}

// Makes a change that must be confirmed, and confirms it or not.
struct Operator {
    bool confirms = false;
    std::atomic<bool> changed{false};
    std::atomic<bool> asked{false}; // for the confirmation
    std::atomic<bool> confirmed{false};

    // Until the service is gone, or it is done.
    void work() {
        stress::Client client;
        std::vector<api_status_t> statuses;
        std::uint64_t number = 0;
        changed = tav::transact_pending(client.tav.handle, steps("y", false), term.count(),
                                        statuses, number) == 0 &&
                  number != 0;
        if (!changed || !confirms) {
            return;
        }
        std::this_thread::sleep_for(term / 2);
        asked = true;
        api_status_t status = api_status_none;
        confirmed =
            tav::confirm(client.tav.handle, number, status, number) == 0 && status == api_status_ok;
    }
};

// False, after a message, if the store is not as it should be.
bool check(const std::string &old, const std::string &changed, const Operator &person,
           Counts &counts) {
    const std::string found = picture_of_n();
    counts.new_after += found == changed ? 1 : 0;
    if (found != old && found != changed) {
        std::printf("neither old nor new:\n%s", found.c_str());
        return false;
    }
    if (person.confirmed && found != changed) {
        std::printf("a confirmed change is lost\n");
        return false;
    }
    std::this_thread::sleep_for(term);
    const auto end = Clock::now() + std::chrono::seconds(30);
    while (waiting() > 0 && Clock::now() < end) {
        std::this_thread::sleep_for(milliseconds(1));
    }
    const std::string last = picture_of_n();
    const bool kept = person.confirmed || (person.asked && last == changed);
    if (last != (kept ? changed : old)) {
        std::printf("after the term, %s:\n%s", person.confirmed ? "confirmed" : "not confirmed",
                    last.c_str());
        return false;
    }
    return true;
}

void kill(stress::Service &service, Counts &counts, unsigned int after_us) {
    std::this_thread::sleep_for(microseconds(after_us));
    service.kill();
    ++counts.kills;
}

void round(stress::Service &service, std::vector<std::unique_ptr<Writer>> &writers, Counts &counts,
           std::mt19937 &random) {
    write(steps("y", false));
    const std::string changed = picture_of_n();
    write(steps("o", true));
    const std::string old = picture_of_n();
    Operator person;
    person.confirms = random() % 2 == 0;
    std::vector<std::thread> threads;
    threads.emplace_back([&person] { person.work(); });
    for (const auto &writer : writers) {
        counts.acknowledged -= writer->acknowledged;
        threads.emplace_back([&writer] { writer->write(); });
    }
    // From before the change until after the end of its term.
    kill(service, counts, static_cast<unsigned>(random() % 140000));
    for (std::thread &thread : threads) {
        thread.join();
    }
    for (const auto &writer : writers) {
        counts.acknowledged += writer->acknowledged;
    }
    if (random() % 3 == 0) {
        // While it starts, reads the database as the last kill left it, and reverts what is due.
        service.start(false);
        kill(service, counts, static_cast<unsigned>(random() % 20000));
    }
    if (random() % 2 == 0) {
        std::this_thread::sleep_for(term); // it is down when the term ends
    }
    service.start();
    counts.changed += person.changed ? 1 : 0;
    counts.confirmed += person.confirmed ? 1 : 0;
    counts.wrong += check(old, changed, person, counts) ? 0 : 1;
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
        std::printf(
            "%ld changes to confirm acknowledged, %ld confirmed; %ld times the new settings "
            "after the kill, %ld times something wrong\n",
            counts.changed, counts.confirmed, counts.new_after, counts.wrong);
        return counts.lost == 0 && counts.partial == 0 && counts.wrong == 0 &&
                       counts.acknowledged > 0 && counts.changed > 0
                   ? 0
                   : 1;
    } catch (const std::exception &error) {
        std::fprintf(stderr, "seed %u: %s\n", seed, error.what());
        return 1;
    }
}
