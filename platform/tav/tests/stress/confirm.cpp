// Kills the service again and again around a change that must be confirmed, and looks at the store
// afterwards: it has the old or the new settings, whole, and the old ones once the term has passed,
// unless the change was confirmed.
#include <CLI/CLI.hpp>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <random>
#include <stdexcept>
#include <thread>

#include "client/admin.h"
#include "protocol/limits.h"
#include "stress/service.h"

namespace {

using Strings = std::vector<std::string>;
using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;
using std::chrono::milliseconds;

constexpr milliseconds term{100};

struct Counts {
    long kills = 0;
    long changed = 0;   // acknowledged before the kill
    long confirmed = 0; // acknowledged before the kill
    long new_after = 0; // found after the kill, within the term
    long wrong = 0;
};

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

std::string picture() {
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

// What a client does until the service is gone.
struct Operator {
    bool confirms = false;
    std::atomic<bool> changed{false};
    std::atomic<bool> asked{false}; // for the confirmation
    std::atomic<bool> confirmed{false};

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
    const std::string found = picture();
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
    const std::string last = picture();
    const bool kept = person.confirmed || (person.asked && last == changed);
    if (last != (kept ? changed : old)) {
        std::printf("after the term, %s:\n%s", person.confirmed ? "confirmed" : "not confirmed",
                    last.c_str());
        return false;
    }
    return true;
}

void round(stress::Service &service, Counts &counts, std::mt19937 &random) {
    write(steps("o", true));
    const std::string old = picture();
    write(steps("y", false));
    const std::string changed = picture();
    write(steps("o", true));
    Operator person;
    person.confirms = random() % 2 == 0;
    std::thread thread([&person] { person.work(); });
    // From before the change until after the end of its term.
    std::this_thread::sleep_for(microseconds(random() % 140000));
    service.kill();
    ++counts.kills;
    thread.join();
    if (random() % 3 == 0) {
        // While it starts, and takes back what is due.
        service.start(false);
        std::this_thread::sleep_for(microseconds(random() % 20000));
        service.kill();
        ++counts.kills;
    }
    if (random() % 2 == 0) {
        std::this_thread::sleep_for(term); // it is down when the term ends
    }
    service.start();
    counts.changed += person.changed ? 1 : 0;
    counts.confirmed += person.confirmed ? 1 : 0;
    counts.wrong += check(old, changed, person, counts) ? 0 : 1;
}

} // namespace

int main(int argc, char **argv) {
    CLI::App app{"Kills the settings service around changes that must be confirmed."};
    int kills = 20;
    unsigned int seed = std::random_device()();
    std::string durability = "full";
    std::string program = TAVD_PROGRAM;
    app.add_option("--kills", kills, "how often")->capture_default_str();
    app.add_option("--seed", seed, "of the random times");
    app.add_option("--durability", durability, "full or normal")->capture_default_str();
    app.add_option("--service", program, "another service than the one that was built");
    CLI11_PARSE(app, argc, argv);
    try {
        stress::Service service(program, {"--database", "%store.db", "--durability", durability});
        std::mt19937 random(seed);
        Counts counts;
        service.start();
        while (counts.kills < kills) {
            round(service, counts, random);
        }
        std::printf("%ld kills (durability %s, seed %u): %ld changes acknowledged, %ld confirmed; "
                    "%ld times the new settings after the kill, %ld times something wrong\n",
                    counts.kills, durability.c_str(), seed, counts.changed, counts.confirmed,
                    counts.new_after, counts.wrong);
        return counts.wrong == 0 && counts.changed > 0 ? 0 : 1;
    } catch (const std::exception &error) {
        std::fprintf(stderr, "seed %u: %s\n", seed, error.what());
        return 1;
    }
}
