// Line charts as one SVG file that is readable on light and dark backgrounds.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace bench {

struct line_t {
    std::string name;
    std::vector<std::pair<double, double>> points; // in ascending order
};

struct chart_t {
    std::string title; // the label of the vertical axis, which starts at 0
    std::vector<line_t> lines;
};

// The charts side by side; their common horizontal axis, the number of addresses, is logarithmic.
// Throws std::runtime_error when the file cannot be written.
void write_plot(const std::string &path, const std::vector<chart_t> &charts);

} // namespace bench
