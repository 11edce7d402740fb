// The daemon's one connection to the kernel's routing subsystem: an rtnetlink socket (rtnetlink(7))
// subscribed to links and to IPv6 addresses, routes and prefixes.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>

#include <tav/toolkit.h>

#include "sync/model.h"

struct nl_sock;

// A failure of the channel. The text is the bare name of the call or check that failed.
class netlink_err : public std::runtime_error {
public:
    explicit netlink_err(const tk_string &text) : std::runtime_error(std::string(text)) {}
};

class CNetlink {
public:
    // What recv found: nothing to handle, the end of a dump, or else the rtnetlink message type of
    // the datagram's first message (RTM_..., 16 and above).
    static constexpr int nothing = 0;
    static constexpr int end_of_dump = 1;

    // Allocates, connects and subscribes a non-blocking socket. Throws netlink_err or
    // std::bad_alloc, without a log line; no socket is left open then.
    CNetlink();
    CNetlink(const CNetlink &) = delete;
    CNetlink &operator=(const CNetlink &) = delete;

    // The descriptor to wait on; the channel owns it. Throws netlink_err, as do all functions
    // below.
    int fd() const;

    // Each asks for one dump and returns the number of bytes sent. The answer arrives through recv.
    int request_links();
    int request_addrs();
    int request_routes();

    // Reads one datagram and classifies it by its first message. `buffer` must be null or the
    // datagram of an earlier call: it is freed and replaced once a new datagram has been read, and
    // otherwise not touched. `length` receives the new datagram's size in bytes. The caller
    // releases the last buffer with free(), also after an exception.
    int recv(unsigned char *&buffer, int &length);

    // Add (or delete) a default route, or an address. They do not wait: the kernel's answer and the
    // resulting notification arrive through recv.
    void modify_route(const CKernRoute &route, bool add);
    void modify_addr(const CKernAddress &addr, bool add);

private:
    struct socket_deleter {
        void operator()(struct nl_sock *socket) const;
    };

    int request_dump(const char *name, int type, void *header, std::size_t size);

    std::unique_ptr<struct nl_sock, socket_deleter> sock;
};
