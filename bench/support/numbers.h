// What a measurement comes to: medians and spread, and the rows in which they are shown.
#pragma once

#include <string>
#include <vector>

namespace bench {

// The p-th part (0..1) of the values in ascending order: 0.5 is the median. 0 when there are none.
double quantile(std::vector<double> values, double p);
double median(const std::vector<double> &values);

// One value a round.
struct series_t {
    std::vector<double> rounds;
    void add(double value) { rounds.push_back(value); }
    double middle() const { return median(rounds); }
};

// In decimal, with so many digits behind the point.
std::string number_text(double value, int digits);

// The median with the lowest and the highest round, in a unit that reads well: "184 µs (171..203)".
std::string time_text(const series_t &seconds);
std::string memory_text(const series_t &kilobytes);

// The ratio of the medians, against the most that it may be ("1.42 (at most 2): reached").
std::string verdict(double ratio, double most);

// A Markdown table on standard output.
void table_head(const std::vector<std::string> &columns);
void table_row(const std::vector<std::string> &cells);

} // namespace bench
