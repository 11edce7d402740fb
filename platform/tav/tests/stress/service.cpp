#include "stress/service.h"

#include <sys/stat.h>

#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <utility>

namespace stress {

Service::Service(std::string program, std::vector<std::string> options)
    : path(dir.file("run/s")), arguments{std::move(program)} {
    for (std::string &option : options) {
        // "%" is replaced by the service's own directory.
        const std::size_t mark = option.find('%');
        arguments.push_back(mark == std::string::npos ? option
                                                      : option.replace(mark, 1, dir.file("")));
    }
    ::chmod(dir.file("").c_str(), 0755); // for other users
    ::setenv("TAV_SOCKET", path.c_str(), 1);
    ::setenv("TAV_TIMEOUT_MS", "60000", 1);
}

void Service::start(bool wait) {
    running =
        std::make_unique<tavtest::Process>(dir, "tavd" + std::to_string(++starts % 2), arguments);
    if (wait && !running->wait_for_error_text("serving on ")) {
        throw std::runtime_error("the service does not start: " + running->errors());
    }
}

void Service::kill() {
    running->signal(SIGKILL);
    running->wait();
}

} // namespace stress
