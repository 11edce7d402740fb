#include "support/numbers.h"

#include <algorithm>
#include <cstdio>

namespace bench {
namespace {

// More than three digits would be meaningless with this spread.
std::string short_text(double value) {
    return number_text(value, value >= 100 ? 0 : value >= 10 ? 1 : 2);
}

std::string with_spread(const series_t &series, double scale, const std::string &unit) {
    if (series.rounds.empty()) {
        return "-";
    }
    const auto ends = std::minmax_element(series.rounds.begin(), series.rounds.end());
    return short_text(series.middle() * scale) + " " + unit + " (" +
           short_text(*ends.first * scale) + ".." + short_text(*ends.second * scale) + ")";
}

} // namespace

std::string number_text(double value, int digits) {
    char text[64];
    std::snprintf(static_cast<char *>(text), sizeof text, "%.*f", digits, value);
    return static_cast<const char *>(text);
}

double quantile(std::vector<double> values, double p) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    const auto last = static_cast<double>(values.size() - 1);
    return values[static_cast<std::size_t>(p * last + 0.5)];
}

double median(const std::vector<double> &values) {
    return quantile(values, 0.5);
}

std::string time_text(const series_t &seconds) {
    const double middle = seconds.middle();
    if (middle < 1e-3) {
        return with_spread(seconds, 1e6, "µs");
    }
    return middle < 1 ? with_spread(seconds, 1e3, "ms") : with_spread(seconds, 1, "s");
}

std::string memory_text(const series_t &kilobytes) {
    return kilobytes.middle() < 10000 ? with_spread(kilobytes, 1, "KB")
                                      : with_spread(kilobytes, 1.0 / 1024, "MB");
}

std::string verdict(double ratio, double most) {
    return short_text(ratio) + " (at most " + short_text(most) + ")" +
           (ratio <= most ? "" : " **missed**");
}

void table_head(const std::vector<std::string> &columns) {
    table_row(columns);
    table_row(std::vector<std::string>(columns.size(), "---"));
}

void table_row(const std::vector<std::string> &cells) {
    std::string line = "|";
    for (const std::string &cell : cells) {
        line += " " + cell + " |";
    }
    std::puts(line.c_str());
    std::fflush(stdout);
}

} // namespace bench
