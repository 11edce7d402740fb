// What a unit test sees of the daemon: its log lines, its standard error, and one journal of all
// its calls of the fakes, in order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "shell/options.h" // verbosity and the other settings that DaemonTest resets

// One journal for all fakes, so that it shows the order of calls to different fakes and of log
// lines between them. Each fake enters its calls as "name(arguments)", a log line enters as "log
// <priority> <text>" at the moment at which it reaches the system log.
namespace journal {

constexpr std::size_t none = static_cast<std::size_t>(-1);

void add(std::string entry);
const std::vector<std::string> &entries();
// The first entry from `from` on that begins with `start`; `none` if there is none.
std::size_t find(const std::string &start, std::size_t from = 0);
std::size_t count(const std::string &start);
// The entries that begin with `start`, in order.
std::vector<std::string> matching(const std::string &start);
void clear();
// Runs after each new entry, except for entries that it makes itself.
void on_add(std::function<void()> observer);

} // namespace journal

// One call of syslog: the priority and the finished text, prefix included.
struct log_line_t {
    int priority;
    std::string text;
};
bool operator==(const log_line_t &left, const log_line_t &right);
std::ostream &operator<<(std::ostream &out, const log_line_t &line);

namespace captured {

// The system log since the test began (or since clear()).
const std::vector<log_line_t> &log();
// The texts alone.
std::vector<std::string> log_texts();
// How often exactly this line (prefix included) was logged.
std::size_t log_count(const std::string &text);
// Everything written to descriptor 2 since then.
std::string standard_error();
// Clears log and standard error, but not the journal.
void clear();
// Runs at each call of syslog, when its line is not yet among log().
void on_log(std::function<void()> observer);

} // namespace captured

namespace fakes {

// A fake registers a function that restores its initial state:
//     static const fakes::reset_hook hook(&forget_everything);
// The hooks run before and after each test of DaemonTest.
class reset_hook {
public:
    explicit reset_hook(void (*reset)());
};

void reset_all();

} // namespace fakes

// Runs `action` with verbosity `level` and expects `line` (prefix included, without newline) once
// in the system log with `priority` and once as a line of standard error; then with verbosity
// `level` - 1 and expects it in neither. Exceptions of `action` are ignored; it runs twice (once
// for level 0) and must prepare what it needs each time.
void expect_logged_at(std::uint32_t level, int priority, const std::string &line,
                      const std::function<void()> &action);
// The same for an informational line, given without its prefix.
void expect_info_at(std::uint32_t level, const std::string &text,
                    const std::function<void()> &action);

// Sets all process-wide settings, fakes, logs and the journal to their initial state before each
// test, and keeps the daemon's standard error from the terminal. Prints it if the test failed.
//
// It does so in its constructor and destructor, so that members of a fixture are created with fresh
// fakes.
class DaemonTest : public ::testing::Test {
protected:
    DaemonTest();
    ~DaemonTest() override;
};
