// The service's log: one line each on standard error.
#pragma once

namespace tav {

// Lines of one format are limited, because clients can cause most of them at will: lines that come
// too often are omitted, and their number is printed with the next one. `format` is a literal.
void log_line(const char *format, ...) __attribute__((format(printf, 1, 2)));

} // namespace tav
