#include "service/log.h"

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <map>

namespace tav {

namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned int lines_per_span = 20;
constexpr std::chrono::seconds span{10};

struct Spent {
    Clock::time_point since;
    unsigned int lines = 0;
    unsigned long left_out = 0;
};

// Whether one more line of this format may be written now.
bool is_due(const char *format, unsigned long &left_out) {
    static std::map<const char *, Spent> all;
    Spent &spent = all[format];
    const Clock::time_point now = Clock::now();
    left_out = 0;
    if (spent.lines == 0 || now - spent.since >= span) {
        left_out = spent.left_out;
        spent = Spent{now, 0, 0};
    }
    if (spent.lines >= lines_per_span) {
        ++spent.left_out;
        return false;
    }
    ++spent.lines;
    return true;
}

} // namespace

void log_line(const char *format, ...) {
    unsigned long left_out = 0;
    if (!is_due(format, left_out)) {
        return;
    }
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    if (left_out > 0) {
        std::fprintf(stderr, "tavd: %lu lines like the next one were omitted\n", left_out);
    }
    // One call for the whole line: several processes may share the stream. If it cannot be written,
    // nobody can be informed.
    std::fprintf(stderr, "tavd: %s\n", text);
}

} // namespace tav
