#include "fuzz/log_sink.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <syslog.h>
#include <utility>

#include "shell/log.h"

namespace {

// The length at which the log cuts a message.
constexpr std::size_t message_size = 4096;

struct recording_t {
    bool on = false;
    std::uint32_t level = 0;
    std::vector<std::string> messages;
};

recording_t &recording() {
    static recording_t instance;
    return instance;
}

std::string entry(int priority, std::uint32_t level, const std::string &text) {
    return std::to_string(priority) + " " + std::to_string(level) + " " + text;
}

void take_message(int priority, std::uint32_t level, const char *format, va_list args)
    __attribute__((format(printf, 3, 0)));

void take_message(int priority, std::uint32_t level, const char *format, va_list args) {
    recording_t &to = recording();
    if (!log_shows(level)) {
        return;
    }
    std::array<char, message_size> text;
    std::vsnprintf(text.data(), text.size(), format, args);
    to.messages.push_back(entry(priority, level, text.data()));
}

} // namespace

#define TAKE(priority, level)                                                                      \
    do {                                                                                           \
        va_list args;                                                                              \
        va_start(args, format);                                                                    \
        take_message(priority, level, format, args);                                               \
        va_end(args);                                                                              \
    } while (false)

void open_log() {}
bool log_shows(std::uint32_t level) {
    return recording().on && level <= recording().level;
}
void log_message(int priority, const char *format, va_list args) {
    take_message(priority, 0, format, args);
}
void log_info_at(std::uint32_t level, const char *format, ...) {
    TAKE(LOG_INFO, level);
}
void log_notice_at(std::uint32_t level, const char *format, ...) {
    TAKE(LOG_NOTICE, level);
}
void log_warning_at(std::uint32_t level, const char *format, ...) {
    TAKE(LOG_WARNING, level);
}
void log_error_at(std::uint32_t level, const char *format, ...) {
    TAKE(LOG_ERR, level);
}
void log_critical_at(std::uint32_t level, const char *format, ...) {
    TAKE(LOG_CRIT, level);
}
void log_info(const char *format, ...) {
    TAKE(LOG_INFO, 1);
}
void log_notice(const char *format, ...) {
    TAKE(LOG_NOTICE, 1);
}
void log_warning(const char *format, ...) {
    TAKE(LOG_WARNING, 0);
}
void log_error(const char *format, ...) {
    TAKE(LOG_ERR, 0);
}
void log_critical(const char *format, ...) {
    TAKE(LOG_CRIT, 0);
}

namespace log_sink {

void record_up_to(std::uint32_t level) {
    recording() = {true, level, {}};
}

std::vector<std::string> take() {
    recording().on = false;
    return std::move(recording().messages);
}

std::string info(std::uint32_t level, const std::string &text) {
    return entry(LOG_INFO, level, text);
}

std::string warning(std::uint32_t level, const std::string &text) {
    return entry(LOG_WARNING, level, text);
}

std::string joined(const std::vector<std::string> &messages) {
    std::string text;
    for (const std::string &message : messages) {
        text += message + "\n";
    }
    return text;
}

} // namespace log_sink
