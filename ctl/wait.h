// Waiting until the kernel agrees with the store.
#pragma once

#include "ctl/tool.h"

namespace ctl {

// What to wait for on one link: an address or the gateway is present on both sides, or on neither.
struct goal_t {
    std::string link;
    bool is_gateway = false;
    bool present = true;
    in6_addr address{}; // ignored when waiting for the absence of a gateway
};

bool is_reached(const goal_t &goal, const comparison_t &comparison);

// Waits if options.patience says so. Returns exit_done, or exit_not_there after printing the reason
// on standard error. The client must be subscribed.
int wait_for(const goal_t &goal, client_t &client, const options_t &options);

} // namespace ctl
