#include "support/footprint.h"

#include <filesystem>
#include <sstream>
#include <stdexcept>

#include <sys/wait.h>
#include <unistd.h>

#include "harness/sandbox.h"

namespace bench {
namespace {

// The number after "<name>:" in a file of such lines; 0 if there is none.
double field(const std::string &text, const std::string &name) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, name.size() + 1, name + ":") == 0) {
            return std::strtod(line.c_str() + name.size() + 1, nullptr);
        }
    }
    return 0;
}

} // namespace

memory_t memory_of(pid_t process) {
    const std::string text = kt::read_file("/proc/" + std::to_string(process) + "/smaps_rollup");
    if (text.empty()) {
        throw std::runtime_error("no memory figures of process " + std::to_string(process));
    }
    return {field(text, "Rss"), field(text, "Pss"),
            field(text, "Private_Clean") + field(text, "Private_Dirty")};
}

std::uint64_t sleeps_of(pid_t process) {
    return static_cast<std::uint64_t>(field(
        kt::read_file("/proc/" + std::to_string(process) + "/status"), "voluntary_ctxt_switches"));
}

std::uint64_t stripped_size(const std::string &program) {
    const auto copy =
        std::filesystem::temp_directory_path() / ("stripped-" + std::to_string(getpid()));
    const pid_t child = fork();
    if (child == 0) {
        execlp("strip", "strip", "-o", copy.c_str(), program.c_str(), nullptr);
        _exit(127);
    }
    int status = -1;
    if (child < 0 || waitpid(child, &status, 0) != child || status != 0) {
        throw std::runtime_error("strip failed");
    }
    const auto size = std::filesystem::file_size(copy);
    std::filesystem::remove(copy);
    return size;
}

} // namespace bench
