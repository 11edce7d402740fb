#include "runner.h"

#include <algorithm>
#include <stdexcept>

#include "world.h"

namespace model {
namespace {

bool contains(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

bool is_stored(const StoreModel &store, int number, const std::string &address) {
    for (const auto &stored : store.read()) {
        for (const auto &one : stored.addresses) {
            if (stored.number == number && one.text == address && one.type == 3) {
                return true;
            }
        }
    }
    return false;
}

// The state of one run between bursts.
class Runner {
public:
    explicit Runner(const Sequence &wanted) : sequence(wanted), world(wanted) {}

    Verdict run() {
        try {
            world.start();
            state = adopt(first_sight(), world.seen_kernel(), world.seen_store());
            world.trouble(); // measures
            for (const auto &burst : sequence.bursts) {
                run_burst(burst);
                if (!verdict.failure.empty()) {
                    break;
                }
            }
            if (verdict.failure.empty()) {
                check_fixed_point();
            }
            if (verdict.failure.empty()) {
                verdict.failure += world.finish();
            }
        } catch (const std::exception &error) {
            verdict.failure += std::string("exception: ") + error.what() + "\n";
        }
        if (!verdict.failure.empty()) {
            verdict.log = world.recent_text();
        }
        return verdict;
    }

private:
    State first_sight() {
        State first;
        for (const auto &item : world.seen_kernel().links) {
            first.daemon.links[item.first].name = item.second.name;
        }
        return first;
    }

    void run_burst(const Burst &burst) {
        const std::vector<Done> done = world.run(burst);
        verdict.operations += done.size();
        note_users_nodes(done);
        const KernelModel kernel = world.seen_kernel();
        const StoreModel store = world.seen_store();
        const Prediction prediction = predict(state, burst.pace, done, ++serial + sequence.seed);
        if (prediction.impossible && burst.pace == Pace::settled) {
            report("the kernel answered otherwise than foreseen:" + answers(done));
        }
        Prediction judged = prediction;
        if (burst.pace != Pace::settled) {
            leave_names_open(done, judged);
        }
        compare(judged, describe(kernel, store));
        check_last_words(done, kernel, store);
        verdict.failure += world.trouble();
        if (!verdict.failure.empty()) {
            verdict.failure = "after burst " + std::to_string(serial) + ":\n" + verdict.failure +
                              "  answers:" + answers(done) + "\n";
            return;
        }
        state = prediction.impossible ? state : prediction.state;
        if (prediction.impossible || prediction.hidden || !judged.doubtful.empty() ||
            !judged.open.empty()) {
            check_fixed_point();
            state = adopt(state, world.seen_kernel(), world.seen_store());
        }
    }

    void note_users_nodes(const std::vector<Done> &done) {
        for (const auto &one : done) {
            const auto &arguments = one.operation.arguments;
            if (one.operation.kind >= Kind::store_set &&
                one.operation.kind <= Kind::store_malformed) {
                for (std::size_t i = 1; i < 3; ++i) {
                    if (i == 1 || one.operation.kind == Kind::store_rename) {
                        users_nodes.insert(address_node(arguments[0] + 1, node_name(arguments[i])));
                    }
                }
            }
        }
    }

    void report(const std::string &line) { verdict.failure += "  " + line + "\n"; }

    static std::string answers(const std::vector<Done> &done) {
        std::string all;
        for (const auto &one : done) {
            all += " " + to_text(one.operation) + " = " + std::to_string(one.answer) + ";";
        }
        return all;
    }

    void compare(const Prediction &prediction, const Outcome &seen) {
        if (prediction.impossible) {
            verdict.items += seen.size();
            verdict.undetermined += seen.size();
            return;
        }
        verdict.items += prediction.determined.size() + prediction.doubtful.size();
        verdict.undetermined += prediction.doubtful.size();
        for (const auto &item : prediction.determined) {
            const auto found = seen.find(item.first);
            if (found == seen.end()) {
                report(item.first + ": foreseen " + item.second + ", absent");
            } else if (found->second != item.second) {
                report(item.first + ": foreseen " + item.second + ", is " + found->second);
            }
        }
        for (const auto &item : seen) {
            const bool is_open = std::any_of(
                prediction.open.begin(), prediction.open.end(), [&](const std::string &stem) {
                    return item.first.compare(0, stem.size(), stem) == 0;
                });
            if (!is_open && prediction.determined.count(item.first) == 0 &&
                prediction.doubtful.count(item.first) == 0) {
                report(item.first + ": foreseen absent, is " + item.second);
            }
        }
    }

    // A user's edit may occur during a synchronisation; the names that the daemon then chooses are
    // not predicted.
    static void leave_names_open(const std::vector<Done> &done, Prediction &prediction) {
        for (const auto &one : done) {
            if (!is_store_side(one.operation.kind) || one.operation.arguments.empty()) {
                continue;
            }
            const std::string stem =
                "nodes " + std::to_string(one.operation.arguments[0] + 1) + " ";
            for (auto item = prediction.determined.lower_bound(stem);
                 item != prediction.determined.end() &&
                 item->first.compare(0, stem.size(), stem) == 0;) {
                prediction.doubtful.insert(item->first);
                item = prediction.determined.erase(item);
            }
        }
    }

    // A Static address that only the user changed, and that was last written, is on both sides.
    void check_last_words(const std::vector<Done> &done, const KernelModel &kernel,
                          const StoreModel &store);
    // Store and kernel say the same, per link with a node of its own.
    void check_agreement(const KernelModel &kernel, const StoreModel &store);
    // After two further synchronisations a third changes nothing.
    void check_fixed_point();
    bool is_refused(const KernelModel &kernel, int index, const std::string &text);

    const Sequence sequence;
    World world;
    State state;
    Verdict verdict;
    std::uint32_t serial = 0;
    std::set<std::string> users_nodes; // address nodes that the user has written
};

void Runner::check_last_words(const std::vector<Done> &done, const KernelModel &kernel,
                              const StoreModel &store) {
    std::map<std::string, std::pair<int, int>> last; // address to slot and length
    for (const auto &one : done) {
        const auto &arguments = one.operation.arguments;
        if (one.operation.kind == Kind::store_set && one.answer == 0 && arguments[4] == 3) {
            last[address_text(arguments[0], arguments[2])] = {arguments[0], arguments[3]};
        }
    }
    for (const auto &item : last) {
        const int slot = item.second.first;
        const bool touched = std::any_of(done.begin(), done.end(), [&](const Done &one) {
            const auto &arguments = one.operation.arguments;
            if (arguments.empty() || arguments[0] != slot ||
                one.operation.kind == Kind::daemon_stop) {
                return false;
            }
            const bool whole_link =
                one.operation.kind >= Kind::link_create && one.operation.kind <= Kind::link_up;
            const bool same_address = one.operation.kind <= Kind::kernel_lifetime &&
                                      address_text(slot, arguments[1]) == item.first;
            return whole_link || same_address || one.operation.kind == Kind::advertise ||
                   one.operation.kind == Kind::store_rename;
        });
        // Compare with the result of all the user's operations on the store.
        StoreModel wish = state.store;
        for (const auto &one : done) {
            if (is_store_side(one.operation.kind) && one.answer == 0) {
                apply_to_store(wish, one.operation);
            }
        }
        const int index = kernel.link_of(slot);
        if (touched || index == 0 || !is_stored(wish, slot + 1, item.first) ||
            kernel.links.at(index).name != "eth" + std::to_string(slot)) {
            continue;
        }
        if (!is_stored(store, slot + 1, item.first)) {
            report("the user's Static " + item.first + " is not in the store");
        }
    }
}

bool Runner::is_refused(const KernelModel &kernel, int index, const std::string &text) {
    const std::string line = "Kernel refused address '" + text;
    const auto lines = world.recent_lines();
    const bool heard = std::any_of(lines.begin(), lines.end(),
                                   [&](const kt::line_t &one) { return contains(one.text, line); });
    verdict.refused += heard ? 1 : 0;
    return heard && kernel.links.count(index) != 0;
}

void Runner::check_agreement(const KernelModel &kernel, const StoreModel &store) {
    for (const auto &stored : store.read()) {
        int index = 0;
        for (const auto &item : kernel.links) {
            const auto known = state.daemon.links.find(item.first);
            if (known != state.daemon.links.end() && known->second.number == stored.number) {
                index = item.first;
            }
        }
        if (index == 0) {
            continue;
        }
        const auto &in_kernel = kernel.links.at(index).addresses;
        for (const auto &address : in_kernel) {
            int times = 0;
            int by_user = 0;
            for (const auto &one : stored.addresses) {
                times += one.text == address.text ? 1 : 0;
                by_user += one.text == address.text &&
                                   users_nodes.count(address_node(stored.number, one.node)) != 0
                               ? 1
                               : 0;
            }
            if (times == 0 || (times - by_user > 1)) {
                report(address.text + " of interface " + std::to_string(stored.number) +
                       " is in the store " + std::to_string(times) + " times");
            }
        }
        for (const auto &one : stored.addresses) {
            const auto found =
                std::find_if(in_kernel.begin(), in_kernel.end(), [&](const KernelAddress &address) {
                    return address.text == one.text &&
                           (address.length == one.length || one.type != 3);
                });
            if (one.text == address_text(stored.number - 1, address_link_local)) {
                continue; // the link's own, declared Static by the user: the kernel keeps its
                          // length
            }
            if (found == in_kernel.end() && !is_refused(kernel, index, one.text)) {
                report(one.text + "/" + std::to_string(one.length) + " " + type_text(one.type) +
                       " of interface " + std::to_string(stored.number) + " is not in the kernel");
            }
        }
    }
}

void Runner::check_fixed_point() {
    world.touch();
    world.touch();
    const Outcome before = describe(world.seen_kernel(), world.seen_store());
    world.touch();
    const KernelModel kernel = world.seen_kernel();
    const StoreModel store = world.seen_store();
    const Outcome after = describe(kernel, store);
    for (const auto &item : before) {
        if (after.count(item.first) == 0) {
            report("a third synchronisation took away: " + item.first + " " + item.second);
        }
    }
    for (const auto &item : after) {
        const auto earlier = before.find(item.first);
        if (earlier == before.end() || earlier->second != item.second) {
            report("a third synchronisation made: " + item.first + " " + item.second);
        }
    }
    for (const auto &line : world.recent_lines()) {
        for (const std::string change :
             {"Changing prefix length", "Removing TAV addr", "Removing unknown/junk",
              "Removing existing static route", "New TAV route overriding"}) {
            if (contains(line.text, change)) {
                report("a third synchronisation still did: " + line.text);
            }
        }
    }
    check_agreement(kernel, store);
    verdict.failure += world.trouble();
}

} // namespace

Verdict run(const Sequence &sequence) {
    return Runner(sequence).run();
}

namespace {

bool fails(const Sequence &sequence, int &tries) {
    if (tries == 0) {
        return false;
    }
    --tries;
    return !run(sequence).failure.empty();
}

// Omits parts of the list as long as the sequence still fails: first large parts, then ever smaller
// ones.
template <typename Item, typename Try>
void reduce(std::vector<Item> &items, const Try &still_fails) {
    for (std::size_t size = items.size(); size > 0; size /= 2) {
        for (std::size_t at = 0; at + size <= items.size();) {
            std::vector<Item> fewer = items;
            const auto first = fewer.begin() + static_cast<std::ptrdiff_t>(at);
            fewer.erase(first, first + static_cast<std::ptrdiff_t>(size));
            if (still_fails(fewer)) {
                items = fewer;
            } else {
                at += size;
            }
        }
    }
}

} // namespace

Sequence shrink(const Sequence &failing, int tries) {
    Sequence shortest = failing;
    reduce(shortest.bursts, [&](const std::vector<Burst> &fewer) {
        Sequence candidate = shortest;
        candidate.bursts = fewer;
        return fails(candidate, tries);
    });
    for (std::size_t i = 0; i < shortest.bursts.size(); ++i) {
        reduce(shortest.bursts[i].operations, [&](const std::vector<Operation> &fewer) {
            Sequence candidate = shortest;
            candidate.bursts[i].operations = fewer;
            return fails(candidate, tries);
        });
    }
    for (auto &burst : shortest.bursts) {
        const Pace pace = burst.pace;
        burst.pace = Pace::settled;
        if (!fails(shortest, tries)) {
            burst.pace = pace;
        }
    }
    return shortest;
}

} // namespace model
