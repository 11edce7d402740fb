// The service's log: one line each on standard error.
#pragma once

namespace tav {

// Writes a line, escaped as in terminal/escape.h: a client's bytes can neither end the line nor
// control a terminal. Never waits, allocates no memory and leaves errno alone. For one thread.
//
// Lines of one format are limited, because clients can cause most of them at will. Lines that come
// too often, and lines that nobody takes (a full pipe), are omitted; their number is printed with
// the next one. `format` is a literal.
void log_line(const char *format, ...) noexcept __attribute__((format(printf, 1, 2)));

} // namespace tav
