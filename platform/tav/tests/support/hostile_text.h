// Text that must not reach a terminal as it is, and a look at what did reach one.
#pragma once

#include <algorithm>
#include <set>
#include <sstream>
#include <string>

namespace tavtest {

// A character as UTF-8; below U+10000.
inline std::string utf8(unsigned character) {
    const auto byte = [](unsigned value) { return static_cast<char>(value); };
    if (character < 0x80) {
        return {byte(character)};
    }
    if (character < 0x800) {
        return {byte(0xc0U | (character >> 6U)), byte(0x80U | (character & 0x3fU))};
    }
    return {byte(0xe0U | (character >> 12U)), byte(0x80U | ((character >> 6U) & 0x3fU)),
            byte(0x80U | (character & 0x3fU))};
}

// Every byte except those of `left_out`, then each character that controls a terminal or changes
// the direction of the text after it.
inline std::string hostile_text(const std::string &left_out = "") {
    std::string text;
    for (unsigned byte = 0; byte < 256; ++byte) {
        if (left_out.find(static_cast<char>(byte)) == std::string::npos) {
            text.push_back(static_cast<char>(byte));
        }
    }
    for (unsigned character = 0x80; character <= 0x9f; ++character) {
        text += utf8(character);
    }
    for (unsigned character = 0x202a; character <= 0x202e; ++character) {
        text += utf8(character);
    }
    for (unsigned character = 0x2066; character <= 0x2069; ++character) {
        text += utf8(character);
    }
    return text;
}

// The commands that a tool's --help lists below a line with this title.
inline std::set<std::string> commands_in(const std::string &help, const std::string &title) {
    std::set<std::string> commands;
    std::istringstream lines(help.substr(std::min(help.find("\n" + title), help.size())));
    std::string line;
    std::getline(lines, line); // the end of the line before the title
    std::getline(lines, line);
    while (std::getline(lines, line) && line.compare(0, 2, "  ") == 0) {
        commands.insert(line.substr(2, line.find(' ', 2) - 2));
    }
    return commands;
}

// The surroundings of the first byte that is neither printable ASCII nor part of a terminal's line
// end; empty when there is none.
inline std::string unescaped_part(const std::string &printed) {
    for (std::size_t i = 0; i < printed.size(); ++i) {
        const auto byte = static_cast<unsigned char>(printed[i]);
        const bool line_end = printed.compare(i, 2, "\r\n") == 0;
        if (line_end) {
            ++i;
        } else if (byte < 0x20 || byte >= 0x7f) {
            return printed.substr(i < 60 ? 0 : i - 60, 80);
        }
    }
    return "";
}

} // namespace tavtest
