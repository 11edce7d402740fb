// A service of its own for a stress program.
#pragma once

#include <tav/toolkit.h>

#include <memory>
#include <string>
#include <vector>

#include "support/process.h"

namespace stress {

class Service {
public:
    // `program`: the service's executable. Its socket is the environment's TAV_SOCKET from now on.
    Service(std::string program, std::vector<std::string> options);

    // Starts it, the first time or again. With `wait` it accepts connections on return: throws
    // std::runtime_error with its log when it ends instead.
    void start(bool wait = true);
    void kill();

    tavtest::Process &process() { return *running; }
    const std::string &socket() const { return path; }

private:
    tavtest::TempDir dir;
    std::string path;
    std::vector<std::string> arguments;
    std::unique_ptr<tavtest::Process> running;
    int starts = 0;
};

// A connection for as long as the object lives; null handle when there is none.
struct Client {
    Client() : tav(mlr_init()) {}
    ~Client() { mlr_close(tav.handle); }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;
    toolkit::CTav tav;
};

} // namespace stress
