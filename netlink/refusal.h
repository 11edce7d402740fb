// The kernel's refusals of this daemon's own requests.
#pragma once

#include <boost/optional.hpp>

#include "netlink/wire.h"
#include "sync/model.h"

// One refused request. Its type, `request` (RTM_...), decides which of `route` and `addr` is
// filled.
struct refusal_t {
    int error = 0; // errno value, positive
    int request = 0;
    CKernRoute route;
    CKernAddress addr;
};

// The refused change of an address or route that the datagram's first message reports. Empty for
// acknowledgements, for refusals of other requests (dumps) and when the kernel did not send the
// request back.
boost::optional<refusal_t> decode_refusal(const wire::datagram_t &datagram);
