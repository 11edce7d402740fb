#include "fakes/log_capture.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <exception>
#include <ostream>
#include <sstream>
#include <utility>

#include <sys/mman.h>
#include <syslog.h>
#include <unistd.h>

#include "fakes/fake_memory.h"
#include "shell/signals.h"

// Sets the sanitizers' output; absent in a plain build.
extern "C" void __sanitizer_set_report_fd(void *fd) __attribute__((weak));

namespace {

std::vector<std::string> &journal_entries() {
    static std::vector<std::string> entries;
    return entries;
}

std::function<void()> &journal_observer() {
    static std::function<void()> observer;
    return observer;
}

std::vector<log_line_t> &log_lines() {
    static std::vector<log_line_t> lines;
    return lines;
}

std::function<void()> &log_observer() {
    static std::function<void()> observer;
    return observer;
}

std::vector<void (*)()> &reset_functions() {
    static std::vector<void (*)()> functions;
    return functions;
}

// Descriptor 2 leads into a file in memory while a test runs.
struct redirection_t {
    int terminal = -1; // the saved descriptor 2
    int file = -1;
};
redirection_t &redirection() {
    static redirection_t instance;
    return instance;
}

void reset_settings() {
    verbosity = 0;
    daemon_mode = true;
    interface_string = "eth";
    run_as_uid = ::getuid();
    nice_priority = nice_not_requested;
    rt_sched_request.reset();
    exit_requested = 0;
    exit_pipe[0] = 0;
    exit_pipe[1] = 0;
}

std::size_t lines_equal(const std::string &text, const std::string &line) {
    std::istringstream in(text);
    std::string one;
    std::size_t found = 0;
    while (std::getline(in, one)) {
        found += one == line ? 1U : 0U;
    }
    return found;
}

bool begins_with(const std::string &text, const std::string &start) {
    return text.compare(0, start.size(), start) == 0;
}

} // namespace

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the linker's names.
extern "C" {
void __wrap_openlog(const char *ident, int option, int facility);
void __wrap_closelog();
void __wrap_syslog(int priority, const char *format, ...) __attribute__((format(printf, 2, 3)));

void __wrap_openlog(const char *ident, int option, int facility) {
    journal::add("openlog(" + std::string(ident) + ", " + std::to_string(option) + ", " +
                 std::to_string(facility) + ")");
}

void __wrap_closelog() {
    journal::add("closelog()");
}

void __wrap_syslog(int priority, const char *format, ...) {
    const fake_memory::spare spare;
    std::array<char, 16384> text{};
    va_list args;
    va_start(args, format);
    std::vsnprintf(text.data(), text.size(), format, args);
    va_end(args);
    if (log_observer()) {
        log_observer()();
    }
    log_lines().push_back({priority, text.data()});
    journal::add("log " + std::to_string(priority) + " " + text.data());
}
} // extern "C"
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

namespace journal {

void add(std::string entry) {
    const fake_memory::spare spare;
    journal_entries().push_back(std::move(entry));
    if (journal_observer()) {
        const auto observer = std::exchange(journal_observer(), nullptr);
        observer();
        journal_observer() = observer;
    }
}

void on_add(std::function<void()> observer) {
    journal_observer() = std::move(observer);
}

const std::vector<std::string> &entries() {
    return journal_entries();
}

std::size_t find(const std::string &start, std::size_t from) {
    const auto &all = journal_entries();
    for (std::size_t i = from; i < all.size(); ++i) {
        if (begins_with(all[i], start)) {
            return i;
        }
    }
    return none;
}

std::size_t count(const std::string &start) {
    return matching(start).size();
}

std::vector<std::string> matching(const std::string &start) {
    std::vector<std::string> found;
    for (const auto &entry : journal_entries()) {
        if (begins_with(entry, start)) {
            found.push_back(entry);
        }
    }
    return found;
}

void clear() {
    journal_entries().clear();
}

} // namespace journal

bool operator==(const log_line_t &left, const log_line_t &right) {
    return left.priority == right.priority && left.text == right.text;
}

std::ostream &operator<<(std::ostream &out, const log_line_t &line) {
    return out << line.priority << " \"" << line.text << '"';
}

namespace captured {

const std::vector<log_line_t> &log() {
    return log_lines();
}

std::vector<std::string> log_texts() {
    std::vector<std::string> texts;
    for (const auto &line : log_lines()) {
        texts.push_back(line.text);
    }
    return texts;
}

std::size_t log_count(const std::string &text) {
    const auto texts = log_texts();
    return static_cast<std::size_t>(std::count(texts.begin(), texts.end(), text));
}

std::string standard_error() {
    std::fflush(stderr);
    std::string text;
    std::array<char, 4096> part{};
    ssize_t got = 0;
    while ((got = pread(redirection().file, part.data(), part.size(),
                        static_cast<off_t>(text.size()))) > 0) {
        text.append(part.data(), static_cast<std::size_t>(got));
    }
    return text;
}

void clear() {
    log_lines().clear();
    std::fflush(stderr);
    if (redirection().file >= 0) {
        EXPECT_EQ(ftruncate(redirection().file, 0), 0);
        EXPECT_EQ(lseek(redirection().file, 0, SEEK_SET), 0);
    }
}

void on_log(std::function<void()> observer) {
    log_observer() = std::move(observer);
}

} // namespace captured

namespace fakes {

reset_hook::reset_hook(void (*reset)()) {
    reset_functions().push_back(reset);
}

void reset_all() {
    captured::on_log(nullptr);
    journal::on_add(nullptr);
    for (const auto &reset : reset_functions()) {
        reset();
    }
}

} // namespace fakes

void expect_logged_at(std::uint32_t level, int priority, const std::string &line,
                      const std::function<void()> &action) {
    const auto run_at = [&action](std::uint32_t at) {
        captured::clear();
        verbosity = at;
        try {
            action();
        } catch (const std::exception &) {
            // Exceptions are checked in other tests; this one is about the line.
        }
    };
    run_at(level);
    std::size_t logged = 0;
    for (const auto &entry : captured::log()) {
        logged += entry == log_line_t{priority, line} ? 1U : 0U;
    }
    EXPECT_EQ(logged, 1U) << "not (or not once) logged at level " << level << ": " << line
                          << "\nlogged: " << ::testing::PrintToString(captured::log());
    EXPECT_EQ(lines_equal(captured::standard_error(), line), 1U)
        << "standard error: " << captured::standard_error();
    if (level > 0) {
        run_at(level - 1);
        EXPECT_EQ(captured::log_count(line), 0U) << "logged below level " << level << ": " << line;
        EXPECT_EQ(lines_equal(captured::standard_error(), line), 0U);
    }
    verbosity = 0;
}

void expect_info_at(std::uint32_t level, const std::string &text,
                    const std::function<void()> &action) {
    expect_logged_at(level, LOG_INFO, "Info: " + text, action);
}

DaemonTest::DaemonTest() {
    fakes::reset_all();
    reset_settings();
    auto &to = redirection();
    std::fflush(stderr);
    to.terminal = dup(STDERR_FILENO);
    to.file = memfd_create("standard error", MFD_CLOEXEC);
    EXPECT_GE(to.terminal, 0);
    EXPECT_GE(to.file, 0);
    EXPECT_EQ(dup2(to.file, STDERR_FILENO), STDERR_FILENO);
    if (__sanitizer_set_report_fd != nullptr) {
        // NOLINTNEXTLINE(performance-no-int-to-ptr): the interface takes the number as a pointer.
        __sanitizer_set_report_fd(
            reinterpret_cast<void *>(static_cast<std::intptr_t>(to.terminal)));
    }
    captured::clear();
    journal::clear();
}

DaemonTest::~DaemonTest() {
    fakes::reset_all();
    reset_settings();
    auto &to = redirection();
    const std::string text = captured::standard_error();
    if (__sanitizer_set_report_fd != nullptr) {
        // NOLINTNEXTLINE(performance-no-int-to-ptr)
        __sanitizer_set_report_fd(reinterpret_cast<void *>(std::intptr_t{STDERR_FILENO}));
    }
    dup2(to.terminal, STDERR_FILENO);
    close(to.terminal);
    close(to.file);
    to = redirection_t{};
    if (HasFailure()) {
        std::fprintf(stderr, "The daemon's standard error:\n%s\nThe journal:\n", text.c_str());
        for (const auto &entry : journal::entries()) {
            std::fprintf(stderr, "  %s\n", entry.c_str());
        }
    }
    captured::clear();
    journal::clear();
}
