// Router advertisements, one at a time: the neighbour's router at the moment at which a sequence
// wants it.
#pragma once

#include <string>

namespace model {

// Sends one on a link of the neighbour's namespace that carries a /64 prefix, and no offer to be a
// default router. Returns 0, or the errno value when it cannot be sent.
int advertise(int neighbour_namespace, const std::string &link, const std::string &prefix,
              unsigned int valid_seconds);

} // namespace model
