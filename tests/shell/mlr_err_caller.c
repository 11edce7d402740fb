/* A library that reports an error as soon as it is loaded, as the store's client library would, and
 * prints on standard output what the program then passes to the system log. */
#include <limits.h>
#include <stdarg.h>
#include <stdio.h>

void mlr_err(unsigned int level, const char *format, ...) __attribute__((weak));
void syslog(int priority, const char *format, ...) __attribute__((format(printf, 2, 3)));

void syslog(int priority, const char *format, ...) {
    va_list args;
    va_start(args, format);
    printf("syslog %d ", priority);
    vprintf(format, args);
    puts("");
    va_end(args);
}

__attribute__((constructor)) static void report(void) {
    if (mlr_err == NULL) {
        puts("mlr_err is not there");
        return;
    }
    /* The only level that is reported before any option was read. */
    mlr_err(UINT_MAX, "the library's number is %d", 42);
}
