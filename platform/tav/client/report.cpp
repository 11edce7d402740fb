#include "client/report.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include <tav/mlr.h>

// Defined by the program. Weak here, so that a program without it can link with the library too;
// the address is then null.
extern "C" void mlr_err(unsigned int level, const char *format, ...)
    __attribute__((weak, visibility("default")));

namespace tav {

void report(unsigned int level, const char *format, ...) {
    if (mlr_err == nullptr) {
        return;
    }
    char message[512];
    va_list arguments;
    va_start(arguments, format);
    // The program's function takes no va_list, so format the text here.
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): va_start is right above
    const int length = vsnprintf(message, sizeof message, format, arguments);
    va_end(arguments);
    mlr_err(level, "%s", length < 0 ? format : message);
}

void report_attempt(const char *failure) {
    thread_local char last_failure[512] = "";
    char text[sizeof last_failure];
    snprintf(text, sizeof text, "%s", failure != nullptr ? failure : "");
    if (*text != '\0' && std::strcmp(text, last_failure) != 0) {
        report(report_unreachable, "%s", text);
    }
    std::memcpy(last_failure, text, sizeof text);
}

} // namespace tav
