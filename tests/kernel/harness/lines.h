// The output of the processes under test, collected line by line while the test does something
// else: the standard error of each, and the messages that reach the private log socket.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kt {

using clock_type = std::chrono::steady_clock;

// How long a test waits for an expected event. It is reached only if the test fails, so it is long
// enough for a loaded machine and an instrumented build.
constexpr std::chrono::seconds patience{60};

// The daemon's line when it has read all tables.
inline const std::string normal_operation =
    "Info: void CSync::discover(): beginning normal operation";

struct line_t {
    clock_type::time_point at; // when it was read
    std::string text;          // without the newline
    int priority = -1;         // of a log message: the number in "<>"; -1 otherwise
    std::string sender;        // of a log message: "ident[pid]"
};

// A growing list of lines. Written by the collector's thread, read by the test.
class LineLog {
public:
    void append(line_t line);
    // No further line will come.
    void finish();

    std::size_t size() const;
    std::vector<line_t> lines(std::size_t from = 0) const;
    // How many lines are, or contain, the text.
    std::size_t count(const std::string &whole_line, std::size_t from = 0) const;
    std::size_t count_containing(const std::string &part, std::size_t from = 0) const;
    // Position of the first such line, or -1.
    long find(const std::string &whole_line, std::size_t from = 0) const;
    long find_containing(const std::string &part, std::size_t from = 0) const;

    // Each waits for the line, from position `from` on, and returns its position plus one (so that
    // the next wait can continue after it), or 0 after `limit`.
    std::size_t wait_for(const std::string &whole_line, std::size_t from = 0,
                         std::chrono::milliseconds limit = patience);
    std::size_t wait_for_containing(const std::string &part, std::size_t from = 0,
                                    std::chrono::milliseconds limit = patience);
    // The same for whichever of two lines comes first.
    std::size_t wait_for_either(const std::string &one, const std::string &other,
                                std::size_t from = 0, std::chrono::milliseconds limit = patience);
    // Waits until the writer has closed its end.
    bool wait_finished(std::chrono::milliseconds limit = patience);
    // The last lines, for a failure's report.
    std::string tail(std::size_t count) const;

private:
    using test_t = std::function<bool(const line_t &)>;
    long find_if(const test_t &test, std::size_t from) const;
    std::size_t wait_if(const test_t &test, std::size_t from, std::chrono::milliseconds limit);

    mutable std::mutex mutex;
    std::condition_variable changed;
    std::vector<line_t> all;
    bool finished = false;
};

// Reads any number of pipes and one log socket in a thread of its own, so that no process under
// test ever waits for the test.
class Collector {
public:
    Collector();
    ~Collector();
    Collector(const Collector &) = delete;
    Collector &operator=(const Collector &) = delete;

    // Takes the descriptor over.
    void watch_stream(int fd, std::shared_ptr<LineLog> log);
    void watch_log_socket(int fd, std::shared_ptr<LineLog> log);

private:
    struct source_t {
        int fd;
        bool datagrams;
        std::shared_ptr<LineLog> log;
        std::string pending; // a line that has not ended yet
    };

    void add(int fd, bool datagrams, std::shared_ptr<LineLog> log);
    void work();
    static bool read_source(source_t &source);

    std::mutex mutex;
    std::vector<source_t> arriving;
    int wake_pipe[2] = {-1, -1};
    std::thread thread;
};

// Splits "<30>Jan  1 00:00:00 ident[12]: text". The sender stays empty when it does not look so.
line_t parse_log_message(const std::string &datagram);

} // namespace kt
