// One process under test: started, watched and ended by the test.
#pragma once

#include <csignal>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <sys/types.h>

#include "harness/lines.h"
#include "harness/sandbox.h"

namespace kt {

struct spawn_options_t {
    std::map<std::string, std::string> environment; // added to the test's own
    int network = -1;                               // namespace to live in; -1: the test's
    std::vector<int> dropped_capabilities;          // CAP_..., out of the bounding set
    bool own_group = false;                         // a process group of its own
    std::vector<int> closed = {};                   // of the descriptors 0 to 2
};

// With the preloaded library, which these variables control.
spawn_options_t preloaded(std::map<std::string, std::string> environment);

class Process {
public:
    Process(Sandbox &sandbox, std::vector<std::string> arguments,
            const spawn_options_t &options = {});
    ~Process();
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;

    pid_t pid() const { return id; }
    bool running();
    void signal(int number) const;
    // SIGSTOP, and waits until the process is really stopped; SIGCONT.
    void freeze() const;
    void thaw() const { signal(SIGCONT); }

    // Waits for the end; the result of waitpid, or -1 if it keeps running.
    int wait(std::chrono::milliseconds limit = patience);
    // The exit status, or -1 if it did not exit by itself in time.
    int wait_exit(std::chrono::milliseconds limit = patience);
    // The signal that ended it, or -1.
    int wait_killed(std::chrono::milliseconds limit = patience);

    LineLog &errors() { return *standard_error; }
    LineLog &output() { return *standard_output; }

private:
    pid_t id = -1;
    bool ended = false;
    int status = -1;
    std::shared_ptr<LineLog> standard_error;
    std::shared_ptr<LineLog> standard_output;
};

// The process's open descriptors and what each leads to, as /proc names it.
std::map<int, std::string> descriptors(pid_t pid);

// Polls until the condition holds; false after the limit.
bool eventually(const std::function<bool()> &condition, std::chrono::milliseconds limit = patience);

// Processor time that a process has used so far, in seconds.
double processor_seconds(pid_t pid);

// Paths of the programs under test: as built, or as the environment (KT_<NAME>) says.
std::string program(const std::string &name);

} // namespace kt
