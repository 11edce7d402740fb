// Thousands of IPv6 routes of one link, as a routing daemon has them: many requests in one call,
// and the kernel answers only those that it refuses.
#pragma once

#include <string>
#include <vector>

namespace kt {

class ManyRoutes {
public:
    // In the calling process's namespace. The routes have the protocol BGP and this link-local
    // gateway.
    ManyRoutes(int link_index, const std::string &gateway);
    ~ManyRoutes();
    ManyRoutes(const ManyRoutes &) = delete;
    ManyRoutes &operator=(const ManyRoutes &) = delete;

    // The routes `first` to `first` + `count` - 1; number i is to 2a00:HHHH:LLLL::/48, where HHHH
    // and LLLL are the halves of i. Throw std::runtime_error when the kernel refuses one.
    void add(int first, int count) { change(first, count, true); }
    void remove(int first, int count) { change(first, count, false); }

private:
    void change(int first, int count, bool added);
    void append(int number, bool added);
    void send_all();

    int fd;
    int index;
    std::vector<unsigned char> through;
    std::vector<unsigned char> requests;
};

} // namespace kt
