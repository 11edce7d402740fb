// tandrelctl: shows both views of a device's IPv6 settings, and changes the store.
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <exception>
#include <iostream>

#include "ctl/arguments.h"
#include "ctl/text.h"
#include "ctl/tool.h"

// The store's library reports its errors here.
extern "C" __attribute__((visibility("default"))) void mlr_err(unsigned int level,
                                                               const char *format, ...) {
    static_cast<void>(level);
    char message[512]; // longer ones are cut
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(message, sizeof message, format, arguments);
    va_end(arguments);
    if (ctl::library_reports) {
        std::fprintf(stderr, "tandrelctl: %s\n", ctl::shown(message).c_str());
    }
    // The socket's permissions, or the service itself.
    ctl::store_forbidden = std::strstr(message, std::strerror(EACCES)) != nullptr ||
                           std::strstr(message, "this user may not use the store") != nullptr;
}

namespace {

// Writes what is still buffered. False, with a message, if something could not be written.
bool finish_output() {
    errno = 0;
    if (std::cout.flush()) {
        return true;
    }
    // After an earlier failure there is nothing left to flush, and its reason is no longer known.
    std::fprintf(stderr, "tandrelctl: the output cannot be written%s%s\n", errno != 0 ? ": " : "",
                 errno != 0 ? std::strerror(errno) : "");
    return false;
}

} // namespace

int main(int argc, char **argv) {
    try {
        const ctl::request_t request = ctl::parse(argc, argv);
        const int result =
            request.command != nullptr ? request.command(request.options) : request.result;
        return finish_output() ? result : ctl::exit_unreachable;
    } catch (const ctl::refusal &reason) {
        std::fprintf(stderr, "tandrelctl: %s\n", reason.what());
        return reason.code;
    } catch (const std::exception &error) {
        finish_output();
        std::fprintf(stderr, "tandrelctl: %s\n", error.what());
        return ctl::exit_unreachable;
    }
}
