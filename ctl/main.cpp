// tandrelctl: shows both views of a device's IPv6 settings, and changes the store.
#include <cstdarg>
#include <cstdio>
#include <exception>

#include "ctl/arguments.h"
#include "ctl/text.h"
#include "ctl/tool.h"

// The store's library reports its errors here.
extern "C" __attribute__((visibility("default"))) void mlr_err(unsigned int level,
                                                               const char *format, ...) {
    static_cast<void>(level);
    if (!ctl::library_reports) {
        return;
    }
    char message[512];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(message, sizeof message, format, arguments);
    va_end(arguments);
    std::fprintf(stderr, "tandrelctl: %s\n", ctl::shown(message).c_str());
}

int main(int argc, char **argv) {
    try {
        const ctl::request_t request = ctl::parse(argc, argv);
        return request.command != nullptr ? request.command(request.options) : request.result;
    } catch (const ctl::refusal &reason) {
        std::fprintf(stderr, "tandrelctl: %s\n", reason.what());
        return reason.code;
    } catch (const std::exception &error) {
        std::fprintf(stderr, "tandrelctl: %s\n", error.what());
        return ctl::exit_unreachable;
    }
}
