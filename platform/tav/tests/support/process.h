// Temporary directories, and the programs under test as child processes.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace tavtest {

// Nothing takes longer than this unless it hangs; generous, because the machine may be busy.
constexpr int patience_ms = 60000;

class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    std::string file(const std::string &name) const { return path + "/" + name; }

private:
    std::string path;
};

std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &content);
bool exists(const std::string &path);

// The environment ("NAME=value") of a program that loads the library before all others: `more`, and
// the library by its name, because blanks separate paths there.
std::vector<std::string> preloading(const std::string &library, std::vector<std::string> more);

// A child process whose output goes to files. It dies with the test.
class Process {
public:
    // `arguments` begins with the program's path, which may have "NAME=value" for its environment
    // before it. Its standard input is `input`.
    Process(const TempDir &dir, const std::string &name, const std::vector<std::string> &arguments,
            const std::string &input = "");
    // Kills it if it still runs.
    ~Process();
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;

    pid_t pid() const { return child; }
    void signal(int number) const;
    // The exit status, or 1000 plus the signal that ended it; waits for the end.
    int wait();
    bool running();
    std::string output() const { return read_file(output_file); }
    std::string errors() const { return read_file(errors_file); }
    // Waits until the text is in the standard error output; false if the process ended without it.
    bool wait_for_error_text(const std::string &text);

private:
    pid_t child = -1;
    bool ended = false;
    int status = 0;
    std::string output_file;
    std::string errors_file;
};

struct Ran {
    int status = 0;
    std::string output;
    std::string errors;
};

// Runs a program to its end.
Ran run(const TempDir &dir, const std::vector<std::string> &arguments,
        const std::string &input = "");

} // namespace tavtest
