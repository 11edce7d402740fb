// Waiting until the kernel has followed the store.
#pragma once

#include "ctl/tool.h"

namespace ctl {

// What is waited for, on one link: an address, or the gateway, on both sides or on neither.
struct goal_t {
    std::string link;
    bool is_gateway = false;
    bool present = true;
    in6_addr address{}; // not looked at for the absence of a gateway
};

bool is_reached(const goal_t &goal, const comparison_t &comparison);

// Waits if options.patience says so. Returns exit_done, or exit_not_there after saying on standard
// error why it did not come to that. The client is subscribed.
int wait_for(const goal_t &goal, client_t &client, const options_t &options);

} // namespace ctl
