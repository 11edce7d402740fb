#include "prediction.h"

#include <algorithm>
#include <random>

#include "store_change.h"

namespace model {
namespace {

constexpr int orders_tried = 120;

bool declares_link_local_static(const DaemonModel::Link &link) {
    return std::any_of(link.addresses.begin(), link.addresses.end(),
                       [](const DaemonModel::Known &known) {
                           return known.type == 3 && is_link_local(known.text);
                       });
}

// One possible course of events.
class Course {
public:
    Course(const State &start, Pace how_fast, std::uint32_t seed)
        : state(start), pace(how_fast), random(seed), eagerness(eagernesses[pick(4)]),
          wakes_late(pick(2) == 0) {}

    // False if the kernel would have answered differently.
    bool run(const std::vector<Done> &burst) {
        if (state.order_unseen) {
            for (auto &item : state.daemon.links) {
                std::shuffle(item.second.addresses.begin(), item.second.addresses.end(), random);
            }
        }
        // The last mark of the quiet before may have been fetched just now.
        state.daemon.busy = pace != Pace::settled && pick(2) == 0;
        for (const auto &done : burst) {
            if (done.answer < 0) {
                continue;
            }
            if (!apply(done)) {
                if (!is_open(done.operation)) {
                    return false;
                }
                state.kernel.routes_unsure = true;
            }
            // It is unknown whether this gateway was still there, and whether its edit caused an
            // event.
            const Kind kind = done.operation.kind;
            if (state.kernel.routes_unsure && state.store_up && state.daemon.running &&
                (kind == Kind::gateway_remove || kind == Kind::gateway_set)) {
                synchronisation_due = synchronisation_due || pick(2) == 0;
            }
            if (!state.daemon.busy && !state.store.events.empty()) {
                woken = true;
            }
            note_doubled();
            between();
        }
        drain();
        note_doubled();
        state.kernel.expire();
        drain();
        return true;
    }

    State state;

private:
    bool apply(const Done &done);
    // The daemon's entry of the operation's link is unknown, and so are its changes of that link.
    bool is_open(const Operation &operation) const {
        if (!is_kernel_side(operation.kind)) {
            return false;
        }
        const int slot = operation.arguments[0];
        return state.unseen.count(slot) + state.doubled.count(slot) +
                   state.doubled_before.count(slot) >
               0;
    }
    void drop_while_read(int number);
    void cut_short();
    void set_back(Kind kind, std::size_t known_notices);
    void announce_late();
    bool apply_to_kernel(const Done &done, const std::vector<int> &arguments);
    int apply_to_link(const Done &done, int index, int slot);
    void apply_to_processes(const Operation &operation);

    void between() {
        if (pick(2) == 0) {
            announce_late();
        }
        if (pace == Pace::settled) {
            drain();
            state.daemon.busy = false;
        } else if (pace != Pace::frozen) {
            const bool hears_store = !wakes_late || !state.daemon.busy || woken;
            for (int steps = pick(eagerness + 1); steps > 0 && step(hears_store); --steps) {
            }
            if (pace == Pace::slow && pick(2) == 0) {
                state.daemon.busy = false;
            }
        }
    }

    int pick(int limit) { return std::uniform_int_distribution<int>(0, limit - 1)(random); }

    void note_doubled() {
        for (const auto &item : state.daemon.links) {
            const auto link = state.kernel.links.find(item.first);
            if (link != state.kernel.links.end() && declares_link_local_static(item.second)) {
                state.doubled.insert(link->second.slot);
            }
        }
    }

    void drain() {
        announce_late();
        while (step(true)) {
        }
    }

    bool step(bool hears_store) {
        if (!state.daemon.running) {
            return false;
        }
        if (synchronisation_due) {
            synchronisation_due = false;
            state.daemon.synchronise(state.kernel, state.store);
            return true;
        }
        const bool kernel_waits = !state.kernel.notices.empty();
        const bool store_waits = hears_store && state.store_up && !state.store.events.empty();
        if (!kernel_waits && !store_waits) {
            return false;
        }
        // Once the daemon has made a request to the store, its next wake-up waits until it has
        // handled the kernel's notifications, unless it was sent before.
        const bool store_first = !kernel_waits || ((woken || !state.daemon.busy) && pick(2) == 0);
        if (store_waits && store_first) {
            woken = false;
            // Something may still be written between the fetch and the reading.
            synchronisation_due = state.daemon.fetch(state.store);
        } else {
            state.daemon.serve_notice(state.kernel, state.store);
        }
        return true;
    }

    static constexpr int eagernesses[4] = {0, 1, 5, 50};

    Pace pace;
    std::mt19937 random;
    const int eagerness; // the most that the daemon can do between two operations
    // The store's wake-up, which waits for a pause after the daemon's requests, comes after the
    // burst.
    const bool wakes_late;
    bool woken = false;
    bool synchronisation_due = false;
    std::deque<Notice> late;
};

constexpr int Course::eagernesses[4];

// The kernel announces an address that it makes by itself from a queue of its own.
void Course::set_back(Kind kind, std::size_t known_notices) {
    auto &notices = state.kernel.notices;
    const bool by_itself = kind == Kind::advertise || kind == Kind::link_up;
    if (pace != Pace::settled && by_itself && notices.size() > known_notices &&
        notices.back().what == Notice::address_new) {
        late.push_back(notices.back());
        notices.pop_back();
    }
}

void Course::announce_late() {
    for (const auto &notice : late) {
        if (state.kernel.has_address(notice.link, notice.text) && state.kernel.heard) {
            state.kernel.notices.push_back(notice);
        }
    }
    late.clear();
}

bool Course::apply(const Done &done) {
    if (is_kernel_side(done.operation.kind)) {
        const std::size_t known = state.kernel.notices.size();
        const bool as_foreseen = apply_to_kernel(done, done.operation.arguments);
        set_back(done.operation.kind, known);
        return as_foreseen;
    }
    if (is_store_side(done.operation.kind)) {
        if (done.operation.kind == Kind::interface_drop && synchronisation_due && pick(2) == 0) {
            drop_while_read(done.operation.arguments[0] + 1);
        }
        apply_to_store(state.store, done.operation);
    } else {
        apply_to_processes(done.operation);
    }
    return true;
}

// The interface's node was listed when it went: the gateway, and the first of the addresses, may
// have been read by then, the others are not found.
void Course::drop_while_read(int number) {
    for (const auto &stored : state.store.read()) {
        if (stored.number != number) {
            continue;
        }
        if (pick(2) == 0) {
            state.store.user_remove(gateway_node(number));
        }
        const int found = static_cast<int>(stored.listed.size());
        for (int i = pick(found + 1); i < found; ++i) {
            state.store.user_remove(address_node(number, stored.listed[static_cast<size_t>(i)]));
        }
    }
    step(true);
}

int Course::apply_to_link(const Done &done, int index, int slot) {
    KernelModel &kernel = state.kernel;
    switch (done.operation.kind) {
    case Kind::link_create:
        return kernel.create(slot, done.index);
    case Kind::link_delete:
    case Kind::link_move:
        return kernel.remove(index);
    case Kind::link_rename: {
        const std::string plain = "eth" + std::to_string(slot);
        const bool is_plain = kernel.links.at(index).name == plain;
        return kernel.rename(index, is_plain ? "eth7" + std::to_string(slot) : plain);
    }
    case Kind::link_down:
        return kernel.set_down(index);
    default:
        return kernel.set_up(index, address_text(slot, address_link_local));
    }
}

bool Course::apply_to_kernel(const Done &done, const std::vector<int> &arguments) {
    KernelModel &kernel = state.kernel;
    const int slot = arguments[0];
    const int index = kernel.link_of(slot);
    const auto at = [&] { return address_text(slot, arguments[1]); };
    const auto metric = [&] {
        return arguments[3] == 0 ? KernelModel::usual_metric : arguments[3];
    };
    switch (done.operation.kind) {
    case Kind::kernel_add:
        return kernel.add_address(index, at(), arguments[2], arguments[3] != 0) == done.answer;
    case Kind::kernel_delete:
        return kernel.delete_address(index, at(), arguments[2]) == done.answer;
    case Kind::kernel_lifetime:
        return kernel.refresh_address(index, at(), arguments[2]) == done.answer;
    case Kind::advertise:
        return kernel.advertise(index, address_text(slot, address_advertised + arguments[1]),
                                arguments[2] != 0) == done.answer;
    case Kind::route_add:
        return kernel.add_route({index, gateway_text(arguments[1]), arguments[2], metric()},
                                true) == done.answer;
    case Kind::route_delete:
        return kernel.delete_route(
                   {index, gateway_text(arguments[1]), arguments[2], arguments[3]}) == done.answer;
    default:
        return apply_to_link(done, index, slot) == done.answer;
    }
}

// The service may end in the middle of a synchronisation, after what this did in the kernel.
void Course::cut_short() {
    if (pace == Pace::settled || pace == Pace::frozen || pick(2) == 0) {
        return;
    }
    state.store.last_writes = pick(3);
    for (int steps = pick(4); steps > 0 && step(true); --steps) {
    }
    state.store.last_writes.reset();
}

void Course::apply_to_processes(const Operation &operation) {
    DaemonModel &daemon = state.daemon;
    switch (operation.kind) {
    case Kind::daemon_stop:
        daemon.stop(state.kernel, state.store);
        break;
    case Kind::store_stop:
        cut_short();
        daemon.stop(state.kernel, state.store);
        state.store_up = false;
        break;
    case Kind::store_start:
        state.store_up = true;
        daemon.start(state.kernel, state.store);
        break;
    case Kind::overflow:
        daemon.stop(state.kernel, state.store);
        daemon.start(state.kernel, state.store);
        break;
    default:
        if (state.store_up) {
            daemon.start(state.kernel, state.store);
        }
    }
    woken = false;
    synchronisation_due = false;
    drain();
    // The notice after its registration may have been fetched just now.
    daemon.busy = pace != Pace::settled && pick(2) == 0;
    if (daemon.running) {
        state.order_unseen = false; // it has just read the kernel's order
        state.doubled_before.insert(state.doubled.begin(), state.doubled.end());
        state.doubled.clear();
    }
}

std::string join(const std::set<std::string> &texts) {
    std::string all;
    for (const auto &text : texts) {
        all += (all.empty() ? "" : ", ") + text;
    }
    return all;
}

void describe_kernel(const KernelModel &kernel, Outcome &outcome) {
    for (const auto &item : kernel.links) {
        const std::string slot = "slot " + std::to_string(item.second.slot);
        for (const auto &address : item.second.addresses) {
            outcome["kernel " + slot + " " + address.text] = "/" + std::to_string(address.length);
        }
        std::set<std::string> routes;
        for (const auto &route : kernel.routes) {
            if (route.link == item.first) {
                // Siblings are listed as one route, with the protocol of the first.
                routes.insert(route.gateway +
                              (kernel.has_siblings(route)
                                   ? std::string(" as a sibling")
                                   : " protocol " + std::to_string(route.protocol)) +
                              " metric " + std::to_string(route.metric));
            }
        }
        if (!routes.empty()) {
            outcome["routes " + slot] = join(routes);
        }
    }
}

void describe_store(const StoreModel &store, Outcome &outcome) {
    std::set<std::string> read_leaves;
    std::map<std::string, std::set<std::string>> values;
    std::map<std::string, std::set<std::string>> names;
    for (const auto &stored : store.read()) {
        const std::string number = std::to_string(stored.number);
        for (const auto &address : stored.addresses) {
            const std::string key = number + " " + address.text;
            values[key].insert("/" + std::to_string(address.length) + " " +
                               type_text(address.type));
            names[key].insert(address.node);
            read_leaves.insert(address_leaf(stored.number, address.node));
            read_leaves.insert(type_leaf(stored.number, address.node));
        }
        if (stored.gateway) {
            outcome["gateway " + number] = *stored.gateway;
            read_leaves.insert(gateway_leaf(stored.number));
        }
    }
    for (const auto &item : values) {
        outcome["store " + item.first] = join(item.second);
        outcome["nodes " + item.first] = join(names[item.first]);
    }
    for (const auto &leaf : store.leaves) {
        if (read_leaves.count(leaf.first) == 0) {
            outcome["leaf " + leaf.first] = "'" + leaf.second + "'";
        }
    }
}

} // namespace

void apply_to_store(StoreModel &store, const Operation &operation) {
    if (operation.kind == Kind::touch) {
        store.user_touch(touched_leaf());
        return;
    }
    const StoreChange change = change_of(operation, [&](const std::string &path) {
        const auto found = store.leaves.find(path);
        return found == store.leaves.end() ? std::nullopt : std::make_optional(found->second);
    });
    store.user_write(change.pairs);
    if (!change.removed.empty()) {
        store.user_remove(change.removed);
    }
}

Outcome describe(const KernelModel &kernel, const StoreModel &store) {
    Outcome outcome;
    describe_kernel(kernel, outcome);
    describe_store(store, outcome);
    return outcome;
}

namespace {

// Items that a course cannot know, because they were unknown at its start.
void add_unknown(const State &state, const Outcome &outcome, Prediction &prediction) {
    std::set<std::string> &doubtful = prediction.doubtful;
    if (state.kernel.routes_unsure) {
        for (int slot = 0; slot < slots; ++slot) {
            doubtful.insert("routes slot " + std::to_string(slot));
            doubtful.insert("gateway " + std::to_string(slot + 1));
        }
    }
    std::set<int> unknown = state.unseen;
    unknown.insert(state.doubled.begin(), state.doubled.end());
    unknown.insert(state.doubled_before.begin(), state.doubled_before.end());
    for (const int slot : unknown) {
        const std::string number = std::to_string(slot + 1);
        for (const auto &stem :
             {"kernel slot " + std::to_string(slot), "routes slot " + std::to_string(slot),
              "nodes " + number + " ", "store " + number + " ", "gateway " + number,
              "leaf " + number + "/"}) {
            prediction.open.insert(stem);
            for (const auto &one : outcome) {
                if (one.first.compare(0, stem.size(), stem) == 0) {
                    doubtful.insert(one.first);
                }
            }
        }
    }
}

} // namespace

Prediction predict(const State &start, Pace pace, const std::vector<Done> &burst,
                   std::uint32_t seed) {
    Prediction prediction;
    prediction.impossible = true;
    const std::vector<KernelRoute> &routes = start.kernel.routes;
    const bool siblings = std::any_of(routes.begin(), routes.end(), [&](const KernelRoute &route) {
        return start.kernel.has_siblings(route);
    });
    const bool one_order =
        pace == Pace::settled && !start.order_unseen && !start.kernel.routes_unsure && !siblings;
    const int orders = one_order ? 1 : orders_tried;
    for (int i = 0; i < orders; ++i) {
        Course course(start, pace, seed + static_cast<std::uint32_t>(i));
        if (!course.run(burst)) {
            continue;
        }
        const Outcome outcome = describe(course.state.kernel, course.state.store);
        add_unknown(course.state, outcome, prediction);
        if (prediction.impossible) {
            prediction.impossible = false;
            prediction.determined = outcome;
            prediction.state = course.state;
            continue;
        }
        prediction.hidden =
            prediction.hidden || course.state.daemon.links != prediction.state.daemon.links;
        for (const auto &item : outcome) {
            const auto known = prediction.determined.find(item.first);
            if (known == prediction.determined.end() || known->second != item.second) {
                prediction.doubtful.insert(item.first);
            }
        }
        for (const auto &item : prediction.determined) {
            if (outcome.count(item.first) == 0) {
                prediction.doubtful.insert(item.first);
            }
        }
    }
    for (const auto &item : prediction.doubtful) {
        prediction.determined.erase(item);
    }
    return prediction;
}

State adopt(const State &before, const KernelModel &kernel, const StoreModel &store) {
    State state;
    state.kernel = kernel;
    state.kernel.heard = true;
    state.kernel.routes_unsure = before.kernel.routes_unsure;
    for (auto &route : state.kernel.routes) {
        if (!kernel.has_siblings(route)) {
            continue;
        }
        // Siblings are listed as one route, with the protocol of the first.
        const auto known = std::find_if(
            before.kernel.routes.begin(), before.kernel.routes.end(), [&](const KernelRoute &one) {
                return one.link == route.link && one.gateway == route.gateway &&
                       one.metric == route.metric;
            });
        if (known != before.kernel.routes.end()) {
            route.protocol = known->protocol;
        } else {
            state.kernel.routes_unsure = true;
        }
    }
    state.store = store;
    state.store.watched = true;
    state.daemon.running = true;
    state.order_unseen = true;
    state.doubled = before.doubled;
    const auto stored = store.read();
    for (const auto &item : before.daemon.links) {
        state.daemon.links[item.first].name = item.second.name;
    }
    for (auto &item : state.daemon.links) {
        state.daemon.take_over(item.first, kernel, stored);
        const auto link = kernel.links.find(item.first);
        if (item.second.number == 0 && link != kernel.links.end()) {
            state.unseen.insert(link->second.slot);
        }
    }
    return state;
}

} // namespace model
