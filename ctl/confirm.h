// Changes that the store reverts unless they are confirmed in time. They need tavd.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "ctl/edit.h"

namespace ctl {

// Whether the store makes a whole step at once; another provider's does not.
bool has_transactions();
// Makes the change as one transaction. If it has a term (in seconds), prints how to confirm it.
// Throws store_lost, and refusal with another provider's store.
outcome_t write_at_once(client_t &client, const step_t &step, std::optional<double> term);

// Makes a change event for the leaf, without changing it. False if there is no such leaf, or with
// another provider's store. Throws store_lost.
bool touch_leaf(client_t &client, const std::string &path);

// Why such a change was refused: whose change waits, or that there are too many; empty if the
// status means something else.
std::string why_held(client_t &client, const outcome_t &outcome);

// Says on standard error which of the user's own changes of these settings wait for their
// confirmation: reverting them reverts this one, too.
void warn_of_waiting(client_t &client, const step_t &step);

struct waiting_t {
    std::uint64_t number = 0;
    std::uint32_t uid = 0;
    std::uint32_t pid = 0;
    std::string program;
    std::uint32_t left = 0; // milliseconds
};
// What waits for its confirmation; nothing if the store does not say.
std::vector<waiting_t> waiting_changes(client_t &client);
// "change 12 by tandrelctl, process 7, user 0".
std::string text_of(const waiting_t &change);

} // namespace ctl
