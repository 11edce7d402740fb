// The calls of the keeper that go beyond the store's client interface: conditional writes and the
// history of changes. Another provider's store has neither.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ctl/keeper_memory.h"

namespace ctl {

constexpr const char *keeper_name = "tandrel-keep"; // its watchdog
constexpr const char *daemon_name = "tandrel";      // the daemon's

// One committed change of the store.
struct store_change_t {
    std::uint64_t number = 0;
    std::int64_t time = 0;      // seconds since 1970
    std::string service;        // watchdog name of the client that made it; empty: none
    std::uint64_t reverted = 0; // number of the change that the store reverted with this one
    std::vector<leaf_change_t> leaves;
    bool too_large = false; // so the store has not kept what it changed
};

struct store_history_t {
    std::uint64_t oldest = 0; // the first number that the store still knows
    std::uint64_t last = 0;   // of the latest change
    std::vector<store_change_t> changes;
};

// Changes at and below `path` with a number greater than `since`, and takings back of anything.
// Throws store_lost.
store_history_t read_history(client_t &client, const std::string &path, std::uint64_t since);

// Makes all of it, or nothing if a condition does not hold or the store refuses; returns whether it
// was made. Throws store_lost.
bool carry_out(client_t &client, const writes_t &writes);

// The process that has announced itself to the store's watchdog under this name; 0: none is known.
std::uint32_t process_of(client_t &client, const std::string &service);
// The number of its connection, which is another after each restart and each rebuild; 0: none.
std::uint64_t session_of(client_t &client, const std::string &service);

} // namespace ctl
