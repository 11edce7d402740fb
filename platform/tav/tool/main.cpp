// tav: the settings store's command-line tool.
#include <fcntl.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <exception>

#include "tool/arguments.h"
#include "tool/screen.h"
#include "tool/tool.h"

using namespace tav::tool; // NOLINT: nothing but the tool's own names here

// The client library reports its errors here.
extern "C" __attribute__((visibility("default"))) void mlr_err(unsigned int level,
                                                               const char *format, ...) {
    static_cast<void>(level);
    char message[512];
    va_list arguments;
    va_start(arguments, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): va_start is right above
    vsnprintf(message, sizeof message, format, arguments);
    va_end(arguments);
    complain(shown(message));
}

namespace {

// A standard stream that is closed must not become the number of the connection: what is printed
// would be sent to the service. Reading and writing these fails as if they were closed.
void reserve_standard_streams() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(fd, F_GETFD) < 0) {
            static_cast<void>(::open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY));
        }
    }
}

int carry_out(const Request &request) {
    Client client;
    if (!client.connected()) {
        complain("check that tavd is running and that you have permission to use its socket; "
                 "--socket or TAV_SOCKET "
                 "names another socket");
        return exit_unreachable;
    }
    client.term = request.options.term;
    return request.command(client, request.options);
}

// The exit code of a command, or of help (null).
int finish(Command command, int result) {
    constexpr int lost = -1;
    const int all = finish_output() ? result : lost;
    if (command == diff) {
        return all == exit_done || all == exit_different ? all : exit_trouble;
    }
    return all == lost ? exit_refused : all;
}

} // namespace

int main(int argc, char **argv) {
    reserve_standard_streams();
    Command command = nullptr;
    try {
        const Request request = parse(argc, argv);
        command = request.command;
        return finish(command, command != nullptr ? carry_out(request) : request.result);
    } catch (const std::exception &error) {
        complain(error.what());
        return command == diff ? exit_trouble : exit_refused;
    }
}
