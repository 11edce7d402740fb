// Router advertisements (RFC 4861) sent by the test itself, for machines without a router daemon.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace kt {

class Advertiser {
public:
    // Sends on `link` of that network namespace, some ten times a second until destroyed: the /64
    // prefixes, valid for an hour, and the router's own lifetime in seconds (0: no default route).
    Advertiser(int network, const std::string &link, const std::vector<std::string> &prefixes,
               std::uint16_t router_lifetime);
    ~Advertiser();
    Advertiser(const Advertiser &) = delete;
    Advertiser &operator=(const Advertiser &) = delete;

private:
    void work() const;

    int fd = -1;
    std::vector<unsigned char> advertisement;
    std::atomic<bool> stopping{false};
    std::thread thread;
};

// Sends a single one for a /64 prefix, and no offer to be a default router. Returns 0, or the errno
// value when it could not be sent.
int advertise_once(int network, const std::string &link, const std::string &prefix,
                   std::uint32_t valid_seconds);

} // namespace kt
