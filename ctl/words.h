// The words of the command line that name commands.
#pragma once

#include <string>
#include <vector>

#include <CLI/CLI.hpp>

namespace ctl {

// Completes abbreviated commands: replaces a word that is the beginning of exactly one command's
// name by that name.
void complete_commands(const CLI::App &app, std::vector<std::string> &words);

// For a word that names no command: "unknown command 'shwo'; did you mean 'show'?".
std::string unknown_command(const CLI::App &app, const std::string &word);

} // namespace ctl
