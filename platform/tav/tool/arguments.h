// The tool's command line.
#ifndef TAV_TOOL_ARGUMENTS_H
#define TAV_TOOL_ARGUMENTS_H

#include "tool/tool.h"

namespace tav::tool {

using Command = int (*)(Client &, const Options &);

// What a command line asks for. Without a command (help, or a wrong line) everything has been said,
// and `result` is the exit code.
struct Request {
    Command command = nullptr;
    Options options;
    int result = exit_done;
};

// An option --socket is handed on to the client library through the environment.
Request parse(int argc, char **argv);

} // namespace tav::tool

#endif
