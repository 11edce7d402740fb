// The whole terminal, for watch: a table with a log below it, redrawn in place.
#pragma once

#include <deque>
#include <string>

#include <termios.h>

#include "ctl/output.h"

namespace ctl {

// Uses the terminal's alternate screen during its lifetime; then the previous content is shown
// again. Keys arrive without a newline and are not shown.
class screen_t {
public:
    screen_t();
    ~screen_t();
    screen_t(const screen_t &) = delete;
    screen_t &operator=(const screen_t &) = delete;

    static std::size_t columns();
    // Shows the table, and below it as many of the latest log lines as fit. After scrolling: the
    // table and the whole log, from the line scrolled to.
    void draw(const lines_t &table, const std::deque<std::string> &log, bool colour);
    // Handles the bytes of pressed keys; false: quit.
    bool handle(const std::string &keys);

private:
    std::size_t top = 0;  // the first line shown
    std::size_t last = 0; // the last value of `top` that makes sense
    std::size_t page = 1; // lines
    bool has_keys = false;
    termios before{};
};

} // namespace ctl
