// The keeper's socket to the kernel: hands every message on links, addresses and routes to links_t.
#pragma once

#include <memory>

#include "ctl/keeper_links.h"

struct nl_sock;

namespace ctl {

class kernel_feed_t {
public:
    // `to` must outlive the object. Throws std::runtime_error, as do the other calls.
    explicit kernel_feed_t(links_t &to);

    int fd() const;
    // Hands over all messages that have arrived. False if none of them can concern the keeper: a
    // full routing table must not keep it busy.
    bool drain();

private:
    void take(const unsigned char *bytes, int length, moment_t now);
    void take_link(int type, const unsigned char *bytes, int length, moment_t now);
    void take_address(int type, const unsigned char *bytes, int length, moment_t now);
    void take_route(int type, const unsigned char *bytes, int length, moment_t now);

    links_t &links;
    bool look_again = false; // a link changed, which the kernel has reported only indirectly
    bool relevant = false;   // a message since the last drain()
    struct closer_t {
        void operator()(nl_sock *socket) const;
    };
    std::unique_ptr<nl_sock, closer_t> sock;
};

} // namespace ctl
