// The tool's command line.
#pragma once

#include "tool/tool.h"

namespace tav::tool {

using Command = int (*)(Client &, const Options &);

// A parsed command line. Without a command (help, or a wrong line) everything has been printed, and
// `result` is the exit code.
struct Request {
    Command command = nullptr;
    Options options;
    int result = exit_done;
};

// The option --socket is passed to the client library through the environment.
Request parse(int argc, char **argv);

} // namespace tav::tool
