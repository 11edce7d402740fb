// A program whose standard input, output and error are a terminal.
#pragma once

#include <string>
#include <vector>

#include "support/process.h"

namespace tavtest {

class Terminal {
public:
    // `arguments` begins with the program. The terminal is wide, so that nothing is folded.
    explicit Terminal(const std::vector<std::string> &arguments);
    // Kills the program if it still runs.
    ~Terminal();
    Terminal(const Terminal &) = delete;
    Terminal &operator=(const Terminal &) = delete;

    void type(const std::string &keys) const;
    // Waits until the program has printed `text` since the last call that found something; false if
    // it ended, or printed nothing for too long, without it.
    bool wait_for(const std::string &text);
    // Waits for the end of the program; all that it printed, with its newlines as \r\n.
    std::string finish();
    const std::string &printed() const { return all; }

private:
    bool read_more(int timeout_ms);

    pid_t child = -1;
    int master = -1;
    std::string all;
    std::size_t seen = 0;
};

} // namespace tavtest
