#include "sync/errors.h"

#include <cstdarg>
#include <cstdio>

tk_string error_text(const char *format, ...) {
    char text[256];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    return text;
}
