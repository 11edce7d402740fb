// tav: the settings store's command-line tool.
#include <cstdarg>
#include <cstdio>
#include <exception>

#include "tool/arguments.h"
#include "tool/screen.h"
#include "tool/tool.h"

// The client library reports its errors here.
extern "C" __attribute__((visibility("default"))) void mlr_err(unsigned int level,
                                                               const char *format, ...) {
    static_cast<void>(level);
    char message[512];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(message, sizeof message, format, arguments);
    va_end(arguments);
    tav::tool::complain(tav::tool::shown(message));
}

namespace {

int carry_out(const tav::tool::Request &request) {
    using namespace tav::tool; // NOLINT: nothing but the tool's own names here
    Client client;
    if (!client.connected()) {
        complain("check that tavd runs and that you may use its socket; --socket or TAV_SOCKET "
                 "names another socket");
        return exit_unreachable;
    }
    const int result = request.command(client, request.options);
    return finish_output() ? result : exit_refused;
}

} // namespace

int main(int argc, char **argv) {
    using namespace tav::tool; // NOLINT: nothing but the tool's own names here
    try {
        const Request request = parse(argc, argv);
        if (request.command == nullptr) {
            return request.result;
        }
        const int result = carry_out(request);
        // For diff every other result is the same error.
        return request.command == diff && result != exit_done && result != exit_different
                   ? exit_trouble
                   : result;
    } catch (const std::exception &error) {
        complain(error.what());
        return exit_refused;
    }
}
