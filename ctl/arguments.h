// The tool's command line.
#pragma once

#include "ctl/tool.h"

namespace ctl {

using command_t = int (*)(const options_t &);

// A parsed command line. Without a command (help, or a wrong line) everything has been printed, and
// `result` is the exit code.
struct request_t {
    command_t command = nullptr;
    options_t options;
    int result = exit_done;
};

request_t parse(int argc, char **argv);

} // namespace ctl
