#include "harness/process.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <utility>

#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace kt {
namespace {

std::vector<std::string> environment_with(const std::map<std::string, std::string> &added) {
    std::vector<std::string> all;
    for (char **entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        if (added.count(text.substr(0, text.find('='))) == 0) {
            all.push_back(text);
        }
    }
    for (const auto &pair : added) {
        all.push_back(pair.first + "=" + pair.second);
    }
    return all;
}

std::vector<char *> pointers(std::vector<std::string> &texts) {
    std::vector<char *> all;
    all.reserve(texts.size() + 1);
    for (auto &text : texts) {
        all.push_back(text.data());
    }
    all.push_back(nullptr);
    return all;
}

struct child_plan_t {
    char **arguments;
    char **environment;
    int output;
    int errors;
    pid_t test;
    const spawn_options_t *options;
};

// Runs in the forked child, where only async-signal-safe calls are allowed.
[[noreturn]] void become(const child_plan_t &plan) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != plan.test) {
        _exit(126);
    }
    if (plan.options->own_group) {
        setpgid(0, 0);
    }
    if (plan.options->network >= 0 && setns(plan.options->network, CLONE_NEWNET) != 0) {
        _exit(126);
    }
    for (const int capability : plan.options->dropped_capabilities) {
        prctl(PR_CAPBSET_DROP, capability, 0, 0, 0);
    }
    const int null = open("/dev/null", O_RDONLY);
    dup2(null, 0);
    dup2(plan.output, 1);
    dup2(plan.errors, 2);
    if (null > 2) {
        close(null);
    }
    for (const int fd : plan.options->closed) {
        close(fd);
    }
    execve(plan.arguments[0], plan.arguments, plan.environment);
    _exit(127);
}

} // namespace

spawn_options_t preloaded(std::map<std::string, std::string> environment) {
    spawn_options_t options;
    options.environment = std::move(environment);
    // By its name: blanks separate the paths in that variable.
    const std::filesystem::path library = program("PRELOAD");
    options.environment["LD_PRELOAD"] = library.filename();
    options.environment["LD_LIBRARY_PATH"] = library.parent_path();
    options.environment["ASAN_OPTIONS"] = "verify_asan_link_order=0";
    return options;
}

Process::Process(Sandbox &sandbox, std::vector<std::string> arguments,
                 const spawn_options_t &options)
    : standard_error(std::make_shared<LineLog>()), standard_output(std::make_shared<LineLog>()) {
    auto environment = environment_with(options.environment);
    auto argument_pointers = pointers(arguments);
    auto environment_pointers = pointers(environment);
    int out[2];
    int err[2];
    if (pipe2(static_cast<int *>(out), O_CLOEXEC) != 0 ||
        pipe2(static_cast<int *>(err), O_CLOEXEC) != 0) {
        fail("pipe2");
    }
    const child_plan_t plan{
        argument_pointers.data(), environment_pointers.data(), out[1], err[1], getpid(), &options};
    id = fork();
    if (id == 0) {
        become(plan);
    }
    close(out[1]);
    close(err[1]);
    if (id < 0) {
        fail("fork");
    }
    sandbox.collector().watch_stream(out[0], standard_output);
    sandbox.collector().watch_stream(err[0], standard_error);
}

Process::~Process() {
    if (running()) {
        signal(SIGKILL);
        signal(SIGCONT);
        wait();
    }
}

bool Process::running() {
    if (!ended) {
        ended = waitpid(id, &status, WNOHANG) != 0;
    }
    return !ended;
}

void Process::signal(int number) const {
    if (!ended) {
        kill(id, number);
    }
}

void Process::freeze() const {
    signal(SIGSTOP);
    const bool stopped = eventually([this] {
        const std::string text = read_file("/proc/" + std::to_string(id) + "/stat");
        const auto close = text.rfind(')');
        return close != std::string::npos && text.compare(close, 3, ") T") == 0;
    });
    if (!stopped) {
        throw std::runtime_error("process " + std::to_string(id) + " does not stop");
    }
}

int Process::wait(std::chrono::milliseconds limit) {
    if (!eventually([this] { return !running(); }, limit)) {
        return -1;
    }
    standard_error->wait_finished(std::chrono::seconds(2)); // children may hold the pipe open
    return status;
}

int Process::wait_exit(std::chrono::milliseconds limit) {
    const int result = wait(limit);
    return result != -1 && WIFEXITED(result) ? WEXITSTATUS(result) : -1;
}

int Process::wait_killed(std::chrono::milliseconds limit) {
    const int result = wait(limit);
    return result != -1 && WIFSIGNALED(result) ? WTERMSIG(result) : -1;
}

bool eventually(const std::function<bool()> &condition, std::chrono::milliseconds limit) {
    const auto deadline = clock_type::now() + limit;
    for (useconds_t pause = 1000;; pause = pause < 20000 ? pause * 2 : pause) {
        if (condition()) {
            return true;
        }
        if (clock_type::now() > deadline) {
            return false;
        }
        usleep(pause);
    }
}

std::map<int, std::string> descriptors(pid_t pid) {
    std::map<int, std::string> all;
    std::error_code failure;
    for (const auto &entry :
         std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd", failure)) {
        std::error_code closed;
        const auto target = std::filesystem::read_symlink(entry.path(), closed);
        if (!closed) {
            all[std::stoi(entry.path().filename())] = target;
        }
    }
    return all;
}

double processor_seconds(pid_t pid) {
    const std::string text = read_file("/proc/" + std::to_string(pid) + "/stat");
    const auto close = text.rfind(')');
    if (close == std::string::npos) {
        throw std::runtime_error("no process " + std::to_string(pid));
    }
    std::istringstream fields(text.substr(close + 2));
    std::string skipped;
    for (int field = 3; field < 14; ++field) { // the state is field 3 of proc(5)
        fields >> skipped;
    }
    double user = 0;
    double system = 0;
    fields >> user >> system;
    return (user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

std::string program(const std::string &name) {
    const char *override_path = std::getenv(("KT_" + name).c_str());
    if (override_path != nullptr) {
        return override_path;
    }
    static const std::map<std::string, std::string> built{{"TANDREL", KT_TANDREL},
                                                          {"TAVD", KT_TAVD},
                                                          {"TAV", KT_TAV},
                                                          {"PRELOAD", KT_PRELOAD},
                                                          {"TAVD_FAULTY", KT_TAVD_FAULTY},
                                                          {"RADVD", "/usr/sbin/radvd"}};
    return built.at(name);
}

} // namespace kt
