// The daemon's entry point, run inside a test.
#pragma once

#include <string>
#include <vector>

#include "fakes/fake_os.h"

// The daemon's main, under the name that it is compiled with here.
int tandrel_main(int argc, char *argv[]);

// Runs it as "tandrel" with these arguments, and returns how it ended.
fake_os::ending_t ending_of_daemon(std::vector<std::string> arguments);
