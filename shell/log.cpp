#include "shell/log.h"

#include <algorithm>
#include <cstdio>
#include <syslog.h>

#include "shell/options.h"

namespace {

constexpr std::size_t message_size = 4096;

const char *prefix_of(int priority) {
    switch (priority) {
    case LOG_ERR:
        return "Error: ";
    case LOG_WARNING:
        return "Warning: ";
    case LOG_NOTICE:
        return "Notice: ";
    case LOG_INFO:
        return "Info: ";
    case LOG_DEBUG:
        return "Debug: ";
    default:
        return "Critical Error: ";
    }
}

// The body that the entry points share: they differ only in priority and filter.
#define WRITE_MESSAGE(priority)                                                                    \
    do {                                                                                           \
        va_list args;                                                                              \
        va_start(args, format);                                                                    \
        log_message(priority, format, args);                                                       \
        va_end(args);                                                                              \
    } while (false)

} // namespace

void open_log() {
    openlog("tandrel", LOG_PID | LOG_CONS, LOG_DAEMON);
}

void log_message(int priority, const char *format, va_list args) {
    char message[message_size];
    const char *prefix = prefix_of(priority);
    std::vsnprintf(message, sizeof message, format, args);
    std::fprintf(stderr, "%s%s\n", prefix, message);
    std::fflush(stderr);
    if (priority != LOG_DEBUG) {
        syslog(priority, "%s%s", prefix, message);
    }
}

bool log_shows(std::uint32_t level) {
    return level <= verbosity;
}

void log_info_at(std::uint32_t level, const char *format, ...) {
    if (log_shows(level)) {
        WRITE_MESSAGE(LOG_INFO);
    }
}

void log_notice_at(std::uint32_t level, const char *format, ...) {
    if (log_shows(level)) {
        WRITE_MESSAGE(LOG_NOTICE);
    }
}

void log_warning_at(std::uint32_t level, const char *format, ...) {
    if (log_shows(level)) {
        WRITE_MESSAGE(LOG_WARNING);
    }
}

void log_error_at(std::uint32_t level, const char *format, ...) {
    if (log_shows(level)) {
        WRITE_MESSAGE(LOG_ERR);
    }
}

void log_critical_at(std::uint32_t level, const char *format, ...) {
    if (log_shows(level)) {
        WRITE_MESSAGE(LOG_CRIT);
    }
}

void log_info(const char *format, ...) {
    if (verbosity != 0) {
        WRITE_MESSAGE(LOG_INFO);
    }
}

void log_notice(const char *format, ...) {
    if (verbosity != 0) {
        WRITE_MESSAGE(LOG_NOTICE);
    }
}

void log_warning(const char *format, ...) {
    WRITE_MESSAGE(LOG_WARNING);
}

void log_error(const char *format, ...) {
    WRITE_MESSAGE(LOG_ERR);
}

void log_critical(const char *format, ...) {
    WRITE_MESSAGE(LOG_CRIT);
}

void mlr_err(unsigned int level, const char *format, ...) {
    // One level above the library's, so that its most serious errors need one -D; the sum may wrap.
    const std::uint32_t effective = std::min<std::uint32_t>(level + 1U, 5U);
    if (effective <= verbosity) {
        WRITE_MESSAGE(LOG_ERR);
    }
}
