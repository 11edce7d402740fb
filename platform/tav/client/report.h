// Reports the library's errors to the program.
#pragma once

#include "client/export.h"

namespace tav {

// An established connection is lost: every later call on it fails.
constexpr unsigned int report_lost = 0;
// No connection could be made; callers try again by themselves.
constexpr unsigned int report_unreachable = 1;
// One call could not be made as requested; the connection still works.
constexpr unsigned int report_call = 2;

// Reports, at report_unreachable, that no connection could be made. Reports nothing if the last
// attempt of this thread failed for the same reason. A null reason means success.
void report_attempt(const char *failure);

// Passes a message to the program's mlr_err, if it has one.
TAV_EXPORT void report(unsigned int level, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

} // namespace tav
