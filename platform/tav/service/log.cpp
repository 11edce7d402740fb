#include "service/log.h"

#include <cstdarg>
#include <cstdio>

namespace tav {

void log_line(const char *format, ...) {
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    // One call for the whole line: several processes may share the stream. When it cannot be
    // written there is nobody to tell.
    std::fprintf(stderr, "tavd: %s\n", text);
}

} // namespace tav
