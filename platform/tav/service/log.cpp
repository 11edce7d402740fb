#include "service/log.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string_view>

#include "terminal/escape.h"

namespace tav {

namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned int lines_per_span = 20;
constexpr std::chrono::seconds span{10};

struct Spent {
    const char *format = nullptr;
    Clock::time_point since;
    unsigned int lines = 0;
    unsigned long left_out = 0;
};

// More than there are formats; those beyond share the last entry.
constexpr std::size_t most_formats = 64;

Spent &spent_on(const char *format) {
    static std::array<Spent, most_formats> all;
    for (Spent &spent : all) {
        if (spent.format == nullptr) {
            spent.format = format;
        }
        if (spent.format == format) {
            return spent;
        }
    }
    return all.back();
}

// Whether one more line of this format may be written now; counts it.
bool is_due(Spent &spent) {
    const Clock::time_point now = Clock::now();
    if (spent.lines == 0 || now - spent.since >= span) {
        spent.since = now;
        spent.lines = 0;
    }
    return spent.lines++ < lines_per_span;
}

// Lines that a single write puts into a pipe whole, or not at all.
class Lines {
public:
    void add_number(unsigned long number, const char *of) {
        const int added =
            std::snprintf(&bytes[size], bytes.size() - size, "tavd: %lu lines %s\n", number, of);
        size += static_cast<std::size_t>(std::max(added, 0));
    }
    // What does not fit is cut off.
    void add_line(std::string_view text) {
        add("tavd: ");
        while (!text.empty() && size + sizeof(terminal::Piece::bytes) < bytes.size()) {
            add(terminal::take_escaped(text));
        }
        add("\n");
    }
    // False if it would have to wait, or failed. Other processes use the same stream, so it cannot
    // be made non-blocking; a pipe is writable when there is room for this many bytes.
    bool write() const {
        pollfd stream{STDERR_FILENO, POLLOUT, 0};
        return ::poll(&stream, 1, 0) == 1 && ::write(STDERR_FILENO, bytes.data(), size) >= 0;
    }

private:
    void add(std::string_view text) { size += text.copy(&bytes[size], bytes.size() - size); }

    std::array<char, PIPE_BUF> bytes;
    std::size_t size = 0;
};

} // namespace

void log_line(const char *format, ...) noexcept {
    static std::mutex mutex; // commits are made on another thread
    static unsigned long unwritten = 0;
    const int caller_errno = errno;
    const std::lock_guard<std::mutex> lock(mutex);
    Spent &spent = spent_on(format);
    if (!is_due(spent)) {
        ++spent.left_out;
        return;
    }
    std::array<char, 1024> text;
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    Lines lines;
    if (unwritten > 0) {
        lines.add_number(unwritten, "could not be written");
    }
    if (spent.left_out > 0) {
        lines.add_number(spent.left_out, "like the next one were omitted");
    }
    lines.add_line(text.data());
    if (lines.write()) {
        unwritten = 0;
        spent.left_out = 0;
    } else {
        ++unwritten;
    }
    errno = caller_errno;
}

} // namespace tav
