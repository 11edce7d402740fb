// Printing: tables and findings as lines of text, coloured on a terminal only, and as JSON.
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "ctl/tool.h"
#include "terminal/screen.h"

namespace ctl {

using style_t = tav::terminal::Style;

struct line_t {
    style_t style;
    std::string text;
};
using lines_t = std::vector<line_t>;

constexpr std::size_t unlimited_width = static_cast<std::size_t>(-1);
// Columns of the terminal; unlimited if standard output is none.
std::size_t terminal_width();

void print(const lines_t &lines, bool colour);

// The interfaces of a comparison that `options` asks for, in the order of their numbers and names.
std::vector<const interface_view_t *> chosen(const comparison_t &comparison,
                                             const options_t &options);

// The table of each interface, and a legend of the marks that occur, sorted. In a width that is too
// narrow for the table, what both sides have is printed once, and other texts follow on lines of
// their own.
lines_t table_lines(const std::vector<const interface_view_t *> &interfaces,
                    std::size_t width = unlimited_width);
// The text of a finding: the link and the sentence, and the remedy on a line of its own.
lines_t finding_lines(const finding_t &finding);
// The letter of a mark.
char mark_letter(mark_t mark);

// Keeps the keys in the order in which they were added, so that the output is the same in every
// run.
using json_t = nlohmann::ordered_json;
json_t interface_json(const interface_view_t &interface);
json_t finding_json(const finding_t &finding);
// Prints JSON and a newline; text that is not valid UTF-8 is shown with replacement characters.
// `indent` -1: on one line.
void print_json(const json_t &json, int indent = 2);

} // namespace ctl
