#include <random>

#include "operations.h"

namespace model {
namespace {

class Generator {
public:
    explicit Generator(std::uint32_t seed) : random(seed) { sequence.seed = seed; }

    Sequence make() {
        sequence.turn_delay = chance(5) ? below(20) + 1 : 0;
        const int bursts = 2 + below(4);
        for (int i = 0; i < bursts; ++i) {
            add_burst();
        }
        return sequence;
    }

private:
    int below(int limit) { return std::uniform_int_distribution<int>(0, limit - 1)(random); }
    bool chance(int percent) { return below(100) < percent; }
    int slot() { return chance(70) ? 0 : 1 + below(slots - 1); }
    int length() { return chance(75) ? 64 : chance(50) ? 48 : 128; }
    int spelling() { return chance(80) ? 0 : below(spellings); }
    int address() { return chance(80) ? below(kernel_addresses) : address_advertised + below(3); }
    int any_address(int percent_own) {
        return chance(percent_own) ? below(kernel_addresses) : address_advertised + below(prefixes);
    }
    int type() { return chance(75) ? 3 : below(3); }
    // One user keeps an address under one name.
    static int home(int address) { return address % nodes; }

    void add_burst() {
        Burst burst;
        const int pace = below(100);
        burst.pace = pace < 40   ? Pace::settled
                     : pace < 55 ? Pace::slow
                     : pace < 85 ? Pace::fast
                                 : Pace::frozen;
        const int operations = 1 + below(6);
        for (int i = 0; i < operations; ++i) {
            burst.operations.push_back(usual());
        }
        if (chance(12)) {
            add_restart(burst);
        } else if (chance(8)) {
            burst.operations.push_back(expiring());
        }
        sequence.bursts.push_back(burst);
    }

    Operation expiring() {
        if (chance(50)) {
            return {Kind::advertise, {slot(), below(prefixes), 1}};
        }
        return {Kind::kernel_add, {slot(), any_address(80), 64, 1}};
    }

    void add_restart(Burst &burst) {
        if (burst.pace == Pace::frozen) {
            burst.pace = Pace::fast; // a stopped process cannot be restarted
        }
        auto &operations = burst.operations;
        const auto place = operations.begin() + below(static_cast<int>(operations.size()) + 1);
        switch (below(3)) {
        case 0:
            operations.insert(place, {Kind::daemon_stop, {below(2)}});
            operations.push_back({Kind::daemon_start, {}});
            break;
        case 1:
            operations.insert(place, {Kind::store_stop, {}});
            operations.push_back({Kind::store_start, {}});
            break;
        default:
            operations.insert(place, {Kind::overflow, {}});
        }
    }

    Operation usual() {
        const int which = below(100);
        if (which < 28) {
            return kernel_side();
        }
        if (which < 40) {
            return link();
        }
        if (which < 50) {
            return route();
        }
        return store_side();
    }

    Operation kernel_side() {
        const int which = below(100);
        if (which < 45) {
            return {Kind::kernel_add, {slot(), any_address(85), length(), 0}};
        }
        if (which < 75) {
            return {Kind::kernel_delete, {slot(), address(), length()}};
        }
        if (which < 85) {
            return {Kind::kernel_lifetime, {slot(), any_address(85), length()}};
        }
        return {Kind::advertise, {slot(), below(prefixes), 0}};
    }

    Operation link() {
        const int which = below(100);
        const Kind kind = which < 25   ? Kind::link_down
                          : which < 60 ? Kind::link_up
                          : which < 75 ? Kind::link_create
                          : which < 83 ? Kind::link_delete
                          : which < 90 ? Kind::link_move
                                       : Kind::link_rename;
        return {kind, {slot()}};
    }

    Operation route() {
        const int protocol = chance(75) ? 4 : chance(50) ? 3 : 9;
        const int metric = chance(60) ? 0 : 100;
        const Kind kind = chance(65) ? Kind::route_add : Kind::route_delete;
        return {kind, {slot(), below(gateways), protocol, metric}};
    }

    Operation store_side() {
        const int which = below(100);
        const int at = address();
        if (which < 35) {
            return {Kind::store_set, {slot(), home(at), at, length(), type(), spelling()}};
        }
        if (which < 42) {
            return {Kind::store_address, {slot(), home(at), at, length(), spelling()}};
        }
        if (which < 50) {
            return {Kind::store_type, {slot(), below(nodes), type()}};
        }
        if (which < 63) {
            return {Kind::store_remove, {slot(), below(nodes)}};
        }
        if (which < 68) {
            return {Kind::store_rename, {slot(), below(nodes), below(nodes)}};
        }
        if (which < 73) {
            return {Kind::store_malformed, {slot(), below(nodes), below(malformed_texts)}};
        }
        if (which < 84) {
            return {Kind::gateway_set, {slot(), below(gateways), spelling()}};
        }
        if (which < 87) {
            return {Kind::gateway_bad, {slot(), below(malformed_texts)}};
        }
        if (which < 93) {
            return {Kind::gateway_remove, {slot()}};
        }
        if (which < 97) {
            return {Kind::foreign, {slot(), below(foreign_things)}};
        }
        if (which < 98) {
            return {Kind::interface_drop, {slot()}};
        }
        return {Kind::touch, {}};
    }

    std::mt19937 random;
    Sequence sequence;
};

} // namespace

Sequence generate(std::uint32_t seed) {
    return Generator(seed).make();
}

} // namespace model
