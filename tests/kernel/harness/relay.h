// Relays between a client and the service's socket, and cuts connections in the middle.
#pragma once

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace kt {

class Relay {
public:
    // Listens at `path` and relays everything to `service`. A client's third request, counted over
    // all its connections, is not relayed: its connections are closed instead. After that has
    // happened `cuts` times, everything is relayed.
    Relay(const std::string &path, std::string service, int cuts);
    ~Relay();
    Relay(const Relay &) = delete;
    Relay &operator=(const Relay &) = delete;

private:
    struct pair_t {
        int client;
        int service;
    };

    void work();
    void accept_client();
    // False when one connection of the pair has ended.
    bool pass(const pair_t &pair, bool from_client);
    void close_all();

    int listener = -1;
    std::string service_path;
    int cuts_left;
    int requests = 0;
    std::vector<pair_t> pairs;
    std::atomic<bool> stopping{false};
    std::thread thread;
};

} // namespace kt
