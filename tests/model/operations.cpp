#include "operations.h"

#include <array>
#include <cctype>
#include <cstdio>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "in_order.h"

namespace model {
namespace {

struct kind_t {
    Kind kind;
    const char *name;
    std::size_t arguments;
};

constexpr std::array<kind_t, static_cast<std::size_t>(Kind::overflow) + 1> kinds{{
    {Kind::kernel_add, "kernel-add", 4},
    {Kind::kernel_delete, "kernel-delete", 3},
    {Kind::kernel_lifetime, "kernel-lifetime", 3},
    {Kind::advertise, "advertise", 3},
    {Kind::link_create, "link-create", 1},
    {Kind::link_delete, "link-delete", 1},
    {Kind::link_move, "link-move", 1},
    {Kind::link_rename, "link-rename", 1},
    {Kind::link_down, "link-down", 1},
    {Kind::link_up, "link-up", 1},
    {Kind::route_add, "route-add", 4},
    {Kind::route_delete, "route-delete", 4},
    {Kind::store_set, "store-set", 6},
    {Kind::store_address, "store-address", 5},
    {Kind::store_type, "store-type", 3},
    {Kind::store_remove, "store-remove", 2},
    {Kind::store_rename, "store-rename", 3},
    {Kind::store_malformed, "store-malformed", 3},
    {Kind::gateway_set, "gateway-set", 3},
    {Kind::gateway_bad, "gateway-bad", 2},
    {Kind::gateway_remove, "gateway-remove", 1},
    {Kind::foreign, "foreign", 2},
    {Kind::interface_drop, "interface-drop", 1},
    {Kind::touch, "touch", 0},
    {Kind::daemon_stop, "daemon-stop", 1},
    {Kind::daemon_start, "daemon-start", 0},
    {Kind::store_stop, "store-stop", 0},
    {Kind::store_start, "store-start", 0},
    {Kind::overflow, "overflow", 0},
}};
static_assert(tav::in_order(kinds, &kind_t::kind));

using pace_name_t = std::pair<Pace, const char *>;
constexpr std::array<pace_name_t, static_cast<std::size_t>(Pace::frozen) + 1> paces{{
    {Pace::settled, "settled"},
    {Pace::slow, "slow"},
    {Pace::fast, "fast"},
    {Pace::frozen, "frozen"},
}};
static_assert(tav::in_order(paces, &pace_name_t::first));

const kind_t &kind_of(Kind kind) {
    return kinds.at(static_cast<std::size_t>(kind));
}

Operation parse_operation(std::istringstream &words, const std::string &name) {
    for (const auto &known : kinds) {
        if (name == known.name) {
            Operation operation{known.kind, {}};
            int argument = 0;
            while (words >> argument) {
                operation.arguments.push_back(argument);
            }
            if (operation.arguments.size() != known.arguments) {
                throw std::runtime_error(name + ": wrong number of arguments");
            }
            return operation;
        }
    }
    throw std::runtime_error("unknown operation: " + name);
}

Pace parse_pace(const std::string &name) {
    for (const auto &[pace, known] : paces) {
        if (name == known) {
            return pace;
        }
    }
    throw std::runtime_error("unknown pace: " + name);
}

} // namespace

std::string address_text(int slot, int address) {
    const std::string host = "ff:fe00:" + std::to_string(slot + 1);
    switch (address) {
    case address_advertised:
    case address_advertised + 1:
        return prefix_text(address - address_advertised).substr(0, 13) + host;
    case address_link_local:
        return "fe80::" + host;
    default:
        return "2001:db8:a::a" + std::to_string(address);
    }
}

std::string prefix_text(int prefix) {
    return "2001:db8:" + std::to_string(prefix + 1) + "::"; // of 12 characters
}

std::string gateway_text(int gateway) {
    return gateway == unreachable_gateway ? "2001:db8:dead::1"
                                          : "fe80::" + std::to_string(gateway + 1);
}

std::string hardware_address(int slot) {
    return "02:00:00:00:00:0" + std::to_string(slot + 1);
}

std::string node_name(int node) {
    static const char *const names[nodes] = {"1", "2", "3", "4", "office", "a b"};
    return names[node];
}

std::string type_text(int type) {
    static const char *const texts[] = {"static", "Link-Local", "Automatic", "Static", ""};
    return texts[type];
}

std::string malformed_address(int which) {
    static const char *const texts[malformed_texts] = {"2001:db8:a::a0", "2001:db8:a::a0/0",
                                                       "2001:db8:a::a0/129", "nonsense/64", ""};
    return texts[which];
}

std::string malformed_gateway(int which) {
    static const char *const texts[malformed_texts] = {"router", "fe80::1/0", "", "fe80::1%eth0",
                                                       "192.0.2.1"};
    return texts[which];
}

std::string foreign_leaf(int number, int which) {
    static const char *const rest[foreign_things] = {"/IPv6/Addresses/5/Note", "/IPv6/Addresses/12",
                                                     "/IPv4/Addresses/1/Address/Value",
                                                     "/IPv6/Addresses/office/Note/Value"};
    return std::to_string(number) + rest[which];
}

std::string touched_leaf() {
    return "9/IPv6/Default Gateway/Value";
}

std::string spelled(const std::string &text, int spelling) {
    std::string other = text;
    if (spelling == 1) {
        for (char &letter : other) {
            letter = static_cast<char>(std::toupper(static_cast<unsigned char>(letter)));
        }
    } else if (spelling == 2) {
        const auto gap = other.find("::");
        if (gap != std::string::npos && other.compare(0, 4, "fe80") == 0) {
            other.replace(gap, 2, ":0::");
        } else if (gap != std::string::npos) {
            other.replace(gap, 2, ":0000::");
        }
    }
    return other;
}

bool is_store_side(Kind kind) {
    return kind >= Kind::store_set && kind <= Kind::touch;
}

bool is_kernel_side(Kind kind) {
    return kind <= Kind::route_delete;
}

bool restarts_daemon(Kind kind) {
    return kind >= Kind::daemon_stop;
}

std::string to_text(const Operation &operation) {
    std::string text = kind_of(operation.kind).name;
    for (const int argument : operation.arguments) {
        text += " " + std::to_string(argument);
    }
    return text;
}

std::string to_text(const Sequence &sequence) {
    std::string text = "seed " + std::to_string(sequence.seed) + "\ndelay " +
                       std::to_string(sequence.turn_delay) + "\n";
    for (const auto &burst : sequence.bursts) {
        text +=
            std::string("burst ") + paces.at(static_cast<std::size_t>(burst.pace)).second + "\n";
        for (const auto &operation : burst.operations) {
            text += "  " + to_text(operation) + "\n";
        }
    }
    return text;
}

Sequence parse(const std::string &text) {
    Sequence sequence;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string word;
        if (!(words >> word)) {
            continue;
        }
        if (word == "seed") {
            words >> sequence.seed;
        } else if (word == "delay") {
            words >> sequence.turn_delay;
        } else if (word == "burst") {
            words >> word;
            sequence.bursts.push_back({parse_pace(word), {}});
        } else if (sequence.bursts.empty()) {
            throw std::runtime_error("an operation before the first burst: " + line);
        } else {
            sequence.bursts.back().operations.push_back(parse_operation(words, word));
        }
    }
    return sequence;
}

} // namespace model
