#include "ctl/screen.h"

#include <algorithm>
#include <iostream>

#include <sys/ioctl.h>
#include <unistd.h>

namespace ctl {

namespace {

winsize size_of_terminal() {
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_row == 0 || size.ws_col == 0) {
        size.ws_row = 24;
        size.ws_col = 80;
    }
    return size;
}

// The beginning of a text, at most `columns` columns.
std::string cut(const std::string &text, std::size_t columns) {
    std::size_t used = 0;
    std::size_t at = 0;
    for (; at < text.size(); ++at) {
        const bool starts_character = (static_cast<unsigned char>(text[at]) & 0xc0U) != 0x80U;
        if (starts_character && ++used > columns) {
            break;
        }
    }
    return text.substr(0, at);
}

} // namespace

screen_t::screen_t() {
    has_keys = tcgetattr(STDIN_FILENO, &before) == 0;
    if (has_keys) {
        termios raw = before;
        raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        tcsetattr(STDIN_FILENO, TCSANOW, &raw);
    }
    std::cout << "\x1b[?1049h\x1b[?25l" << std::flush;
}

screen_t::~screen_t() {
    std::cout << "\x1b[?25h\x1b[?1049l" << std::flush;
    if (has_keys) {
        tcsetattr(STDIN_FILENO, TCSANOW, &before);
    }
}

std::size_t screen_t::columns() {
    return size_of_terminal().ws_col;
}

void screen_t::draw(const lines_t &table, const std::deque<std::string> &log, bool colour) {
    const winsize size = size_of_terminal();
    const std::size_t rows = size.ws_row - 1U; // the last one is for the keys
    lines_t lines = table;
    lines.push_back({style_t::plain, ""});
    for (const std::string &entry : log) {
        lines.push_back({style_t::plain, entry});
    }
    page = std::max<std::size_t>(rows, 2) - 1;
    last = lines.size() > rows ? lines.size() - rows : 0;
    top = std::min(top, last);
    const std::size_t below = last - top;
    if (top > 0) {
        lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(top));
    } else if (lines.size() > rows && table.size() < rows) {
        // The latest entries, right below the table.
        const auto first = lines.begin() + static_cast<std::ptrdiff_t>(table.size() + 1);
        lines.erase(first, first + static_cast<std::ptrdiff_t>(lines.size() - rows));
    }
    lines.resize(std::min(lines.size(), rows));
    std::string text = "\x1b[H";
    for (const line_t &line : lines) {
        text +=
            tav::terminal::painted(cut(line.text, size.ws_col), line.style, colour) + "\x1b[K\r\n";
    }
    std::string keys = has_keys ? "q quits" : "";
    if (has_keys && last > 0) {
        keys += "; arrow and page keys scroll (" + std::to_string(below) + " more)";
    }
    text += "\x1b[J\x1b[" + std::to_string(size.ws_row) + "H" +
            tav::terminal::painted(cut(keys, size.ws_col - 1U), style_t::dim, colour);
    std::cout << text << std::flush;
}

bool screen_t::handle(const std::string &keys) {
    for (std::size_t at = 0; at < keys.size(); ++at) {
        // A cursor key sends an escape sequence; its last letters decide.
        const bool sequence =
            keys.compare(at, 2, "\x1b[") == 0 || keys.compare(at, 2, "\x1bO") == 0;
        at += sequence ? 2 : 0;
        const char key = at < keys.size() ? keys[at] : '\0';
        const auto is_one_of = [&](const char *plain, const char *ending) {
            return key != '\0' &&
                   std::string(sequence ? ending : plain).find(key) != std::string::npos;
        };
        if (is_one_of("qQ", "")) {
            return false;
        }
        if (is_one_of("j", "B")) {
            top = std::min(top + 1, last);
        } else if (is_one_of("k", "A")) {
            top -= std::min<std::size_t>(top, 1);
        } else if (is_one_of(" ", "6")) {
            top = std::min(top + page, last);
        } else if (is_one_of("b", "5")) {
            top -= std::min(top, page);
        } else if (is_one_of("g", "H1")) {
            top = 0;
        } else if (is_one_of("G", "F4")) {
            top = last;
        }
        if (sequence && at + 1 < keys.size() && keys[at + 1] == '~') {
            ++at;
        }
    }
    return true;
}

} // namespace ctl
