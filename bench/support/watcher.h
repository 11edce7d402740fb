// The benchmark's own netlink sockets: one listens and returns the time at which the kernel
// announced something; the other sends requests and waits for the answers.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "harness/netlink.h"

namespace bench {

using clock_type = std::chrono::steady_clock;
using time_point = clock_type::time_point;

inline double seconds_between(time_point from, time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

// "2001:db8:0:1::<number>/64"
std::string address_text(int number);

// Receives notifications about the addresses of one network namespace.
class Watcher {
public:
    // In the calling process's namespace.
    Watcher();

    int fd() const { return nl_socket_get_fd(netlink.get()); }
    // Discards all announcements so far.
    void drain();
    // Waits until this many different global addresses have been announced since the last drain;
    // returns the time at which the last of them was read. Throws std::runtime_error after two
    // minutes.
    time_point wait_for_addresses(std::size_t count);

private:
    kt::socket_ptr netlink;
};

// Adds and deletes addresses of one link, each as one request and its acknowledgement.
class Requester {
public:
    explicit Requester(int link_index);

    // Throw std::runtime_error when the kernel refuses.
    void add(const std::string &address);
    void remove(const std::string &address);

private:
    kt::socket_ptr netlink;
    int index;
};

} // namespace bench
