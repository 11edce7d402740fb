// The daemon's log: standard error and, except at debug priority, the system log.
//
// Informational and diagnostic messages carry a level and are written only when `verbosity` (option
// -D) is at least that level. Level 0 is for start and exit, 1 for failures and warnings, 2 for
// caught exceptions and skipped items, 3 for progress per event and interface, 4 for detail.
// Nothing here throws; a message longer than 4095 characters is cut.
#pragma once

#include <cstdarg>
#include <cstdint>

// Opens the system log under the ident "tandrel". Called once, in the process that will log.
void open_log();

// Writes one message at a syslog priority (LOG_...), unfiltered.
void log_message(int priority, const char *format, va_list args)
    __attribute__((format(printf, 2, 0)));

// Whether a message of this level is written. Only for frequent messages whose text costs more than
// the work that they report.
bool log_shows(std::uint32_t level);

// Written when level <= verbosity.
void log_info_at(std::uint32_t level, const char *format, ...)
    __attribute__((format(printf, 2, 3)));
void log_notice_at(std::uint32_t level, const char *format, ...)
    __attribute__((format(printf, 2, 3)));
void log_warning_at(std::uint32_t level, const char *format, ...)
    __attribute__((format(printf, 2, 3)));
void log_error_at(std::uint32_t level, const char *format, ...)
    __attribute__((format(printf, 2, 3)));
void log_critical_at(std::uint32_t level, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

// Written when any verbosity was asked for.
void log_info(const char *format, ...) __attribute__((format(printf, 1, 2)));
void log_notice(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Always written.
void log_warning(const char *format, ...) __attribute__((format(printf, 1, 2)));
void log_error(const char *format, ...) __attribute__((format(printf, 1, 2)));
void log_critical(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Where the store's client library reports its errors (declared by <tav/mlr.h> as well): level 0
// needs one -D, and every report is shown from -D 5 on. Exported and weak, so that the library's
// own reference resolves to it.
extern "C" void mlr_err(unsigned int level, const char *format, ...)
    __attribute__((weak, visibility("default"), format(printf, 2, 3)));
