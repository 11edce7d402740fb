// Reports of the library's own errors to the program it is part of.
#ifndef TAV_CLIENT_REPORT_H
#define TAV_CLIENT_REPORT_H

#include "client/export.h"

namespace tav {

// An established connection is lost: every later call on it fails.
constexpr unsigned int report_lost = 0;
// No connection could be made; callers try again on their own.
constexpr unsigned int report_unreachable = 1;
// One call could not be made as asked for; the connection is fine.
constexpr unsigned int report_call = 2;

// Reports, at report_unreachable, that no connection could be made; nothing when the last attempt
// of this thread failed for the same reason, or with null, which stands for a success.
void report_attempt(const char *failure);

// Hands a message to the program's mlr_err, if it has one.
TAV_EXPORT void report(unsigned int level, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

} // namespace tav

#endif
