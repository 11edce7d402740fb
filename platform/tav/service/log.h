// The service's log: one line each on standard error.
#ifndef TAV_SERVICE_LOG_H
#define TAV_SERVICE_LOG_H

namespace tav {

void log_line(const char *format, ...) __attribute__((format(printf, 1, 2)));

} // namespace tav

#endif
