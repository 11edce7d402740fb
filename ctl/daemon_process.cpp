#include "ctl/daemon_process.h"

#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

namespace ctl {

namespace {

namespace fs = std::filesystem;

// The namespace as the kernel names it ("net:[4026531840]"); empty with an error. A process that
// has ended has none, even before its parent has waited for it.
std::string network_of(const fs::path &process, std::error_code &error) {
    return fs::read_symlink(process / "ns/net", error).string();
}

std::string name_of(const fs::path &process) {
    std::ifstream file(process / "comm");
    std::string name;
    std::getline(file, name);
    return name;
}

} // namespace

daemon_t find_daemon() {
    std::error_code error;
    const std::string own = network_of("/proc/self", error);
    daemon_t result = own.empty() ? daemon_t::unknown : daemon_t::absent;
    for (fs::directory_iterator entry("/proc", error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string pid = entry->path().filename();
        if (pid.find_first_not_of("0123456789") != std::string::npos ||
            name_of(entry->path()) != "tandrel") {
            continue;
        }
        std::error_code hidden;
        const std::string network = network_of(entry->path(), hidden);
        if (!network.empty() && network == own) {
            return daemon_t::running;
        }
        if (hidden == std::errc::permission_denied) {
            result = daemon_t::unknown;
        }
    }
    return error ? daemon_t::unknown : result;
}

} // namespace ctl
