// tav: the settings store's command-line tool.
#include <cstdarg>
#include <cstdio>
#include <exception>

#include "tool/arguments.h"
#include "tool/tool.h"

// Where the client library reports to.
extern "C" __attribute__((visibility("default"))) void mlr_err(unsigned int level,
                                                               const char *format, ...) {
    static_cast<void>(level);
    char message[512];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(message, sizeof message, format, arguments);
    va_end(arguments);
    std::fprintf(stderr, "tav: %s\n", message);
}

int main(int argc, char **argv) {
    using namespace tav::tool; // NOLINT: nothing but the tool's own names here
    try {
        const Request request = parse(argc, argv);
        if (request.command == nullptr) {
            return request.result;
        }
        Client client;
        if (!client.connected()) {
            return exit_unreachable;
        }
        return request.command(client, request.options);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "tav: %s\n", error.what());
        return exit_refused;
    }
}
