// Results of a measurement: medians and spread, and the rows that show them.
#pragma once

#include <string>
#include <vector>

namespace bench {

// The quantile p (0..1) of the values: 0.5 is the median. 0 if there are no values.
double quantile(std::vector<double> values, double p);
double median(const std::vector<double> &values);

// One value per round.
struct series_t {
    std::vector<double> rounds;
    void add(double value) { rounds.push_back(value); }
    double middle() const { return median(rounds); }
};

// In decimal, with this many digits after the point.
std::string number_text(double value, int digits);

// The median with the lowest and the highest round, in a suitable unit: "184 µs (171..203)".
std::string time_text(const series_t &seconds);
std::string memory_text(const series_t &kilobytes);

// The ratio of the medians, and whether it is within its limit ("1.42 (at most 2): reached").
std::string verdict(double ratio, double most);

// A Markdown table on standard output.
void table_head(const std::vector<std::string> &columns);
void table_row(const std::vector<std::string> &cells);

} // namespace bench
