// The kernel's refusals of this daemon's own requests.
#pragma once

#include <boost/optional.hpp>

#include "netlink/wire.h"
#include "sync/model.h"

// One refused request. `request` is the type of the request (RTM_...); only the one of `route` and
// `addr` that this type concerns is filled.
struct refusal_t {
    int error = 0; // errno value, positive
    int request = 0;
    CKernRoute route;
    CKernAddress addr;
};

// The refused change of an address or a route, when the datagram's first message is one. Empty for
// acknowledgements, for refusals of other requests (dumps) and when the kernel did not send the
// request back.
boost::optional<refusal_t> decode_refusal(const wire::datagram_t &datagram);
