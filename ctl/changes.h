// Waiting for a change of either side.
#pragma once

#include <chrono>
#include <memory>

#include "ctl/tool.h"
#include "netlink/channel.h"

namespace ctl {

using clock_type = std::chrono::steady_clock;

// Receives every change of the kernel's links, IPv6 addresses and IPv6 routes, and of every leaf
// below the interfaces' node, as long as the client is subscribed. Losing the store is a change
// too; without a store `wait` returns after at most a second, so that the caller can subscribe
// again.
class changes_t {
public:
    // The client must outlive the object. Throws netlink_err, as does `wait`.
    explicit changes_t(client_t &client);
    ~changes_t();
    changes_t(const changes_t &) = delete;
    changes_t &operator=(const changes_t &) = delete;

    // From now on SIGINT and SIGTERM end `wait` instead of the process, and a new size of the
    // terminal is a change.
    void catch_signals();
    // From now on what arrives on this descriptor ends `wait`.
    void watch_keys(int descriptor) { input = descriptor; }
    // The bytes that arrived there.
    std::string take_keys();

    enum class seen_t { change, timeout, signal, keys };
    // Waits for the next change, at most until `deadline`.
    seen_t wait(clock_type::time_point deadline);

private:
    void drain_kernel();
    void drain_store();

    client_t &client;
    std::unique_ptr<CNetlink> kernel;
    int signals = -1;
    int input = -1;
};

} // namespace ctl
