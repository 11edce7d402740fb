// Clients that try to stop all others.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "stress/service.h"
#include "support/raw_peer.h"

namespace stress {

enum class Manner {
    takes, // what it receives, and discards it
    deaf,  // it receives nothing
    leaves // when its first requests were answered, and comes again
};

// Connections that send some requests and then one again and again.
class Swarm {
public:
    // As another user if `foreign`; see foreign_options().
    Swarm(const Service &service, bool foreign, int connections,
          const std::vector<std::string> &first, const std::string &request, Manner manner);
    ~Swarm();
    Swarm(const Swarm &) = delete;
    Swarm &operator=(const Swarm &) = delete;

private:
    void send();
    void receive();
    void come_and_leave(const std::string &socket, bool foreign, int connections,
                        const std::vector<std::string> &requests) const;

    std::string again;
    std::vector<std::unique_ptr<tavtest::RawClient>> clients;
    std::atomic<bool> stop{false};
    std::thread sending;
    std::thread receiving;
};

struct Attack {
    const char *name;
    // The swarms live until the attack ends.
    std::function<std::vector<std::unique_ptr<Swarm>>(const Service &service, bool foreign)> begin;
};

const std::vector<Attack> &attacks();
// Fills the store with what the attacks use.
void fill();
// Removes what only some attacks leave.
void tidy();

// Whether this process can connect as another user.
bool can_be_foreign();
// With these the service lets that user write.
std::vector<std::string> foreign_options();

// Memory of the service, in kilobytes.
long memory(Service &service);

} // namespace stress
