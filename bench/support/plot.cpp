#include "support/plot.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <stdexcept>

namespace bench {
namespace {

constexpr double width = 380;  // of a chart's field
constexpr double height = 240; // of a chart's field
constexpr double left = 56;
constexpr double top = 40;
constexpr double chart_width = left + width + 30;
constexpr double total_height = top + height + 90;

// One colour for light and dark backgrounds; the rest follows the reader's colour scheme.
const char *const colours[] = {"#2f81c7", "#d0722a", "#3a9a5b"};
const char *const style = "<style>text{font:12px sans-serif;fill:#333}.title{font-size:13px}"
                          ".axis{stroke:#999}.grid{stroke:#8884}"
                          "@media(prefers-color-scheme:dark){text{fill:#ccc}}</style>\n";

// The distance of the grid lines: 1, 2 or 5 times a power of ten.
double step_for(double highest) {
    const double power = std::pow(10, std::floor(std::log10(highest)));
    for (const double factor : {0.2, 0.5, 1.0}) {
        if (highest / (power * factor) <= 6) {
            return power * factor;
        }
    }
    return power * 2;
}

void text(std::ofstream &out, double x, double y, const std::string &anchor,
          const std::string &content, const std::string &kind = "") {
    out << "<text x='" << x << "' y='" << y << "' text-anchor='" << anchor << "' class='" << kind
        << "'>" << content << "</text>\n";
}

void stroke(std::ofstream &out, double x1, double y1, double x2, double y2,
            const std::string &kind) {
    out << "<line x1='" << x1 << "' y1='" << y1 << "' x2='" << x2 << "' y2='" << y2 << "' class='"
        << kind << "'/>\n";
}

class Field {
public:
    Field(std::ofstream &file, double from, const chart_t &drawn) : out(file), start(from) {
        double highest = 1;
        for (const line_t &line : drawn.lines) {
            for (const auto &point : line.points) {
                highest = std::max(highest, point.second);
                last = std::max(last, point.first);
            }
        }
        step = step_for(highest);
        ceiling = std::ceil(highest / step) * step;
    }

    void axes(const std::string &title) {
        text(out, start, top - 16, "start", title, "title");
        for (double value = 0; value <= ceiling + step / 2; value += step) {
            stroke(out, start, y(value), start + width, y(value), value > 0 ? "grid" : "axis");
            const std::string number = std::to_string(value);
            text(out, start - 6, y(value) + 4, "end",
                 number.substr(0, step < 1 ? number.find('.') + 2 : number.find('.')));
        }
        for (double value = 10; value <= last * 1.01; value *= 10) {
            stroke(out, x(value), top + height, x(value), top + height + 5, "axis");
            text(out, x(value), top + height + 20, "middle",
                 std::to_string(static_cast<long>(value)));
        }
        text(out, start + width / 2, top + height + 40, "middle", "addresses");
    }

    void line(const line_t &drawn, std::size_t place) {
        const char *const colour = colours[place % 3];
        out << "<polyline fill='none' stroke-width='2' stroke='" << colour << "' points='";
        for (const auto &point : drawn.points) {
            out << x(point.first) << ',' << y(point.second) << ' ';
        }
        out << "'/>\n";
        for (const auto &point : drawn.points) {
            out << "<circle r='3' fill='" << colour << "' cx='" << x(point.first) << "' cy='"
                << y(point.second) << "'/>\n";
        }
        const double at = start + 130 * static_cast<double>(place);
        out << "<rect width='12' height='3' fill='" << colour << "' x='" << at << "' y='"
            << top + height + 64 << "'/>\n";
        text(out, at + 18, top + height + 70, "start", drawn.name);
    }

private:
    double x(double value) const {
        return start + width * (std::log10(value) - 1) / std::max(1.0, std::log10(last) - 1);
    }
    double y(double value) const { return top + height * (1 - value / ceiling); }

    std::ofstream &out;
    double start;
    double last = 10;
    double step = 1;
    double ceiling = 1;
};

} // namespace

void write_plot(const std::string &path, const std::vector<chart_t> &charts) {
    std::ofstream out(path);
    const double total_width = chart_width * static_cast<double>(charts.size());
    out << "<svg xmlns='http://www.w3.org/2000/svg' viewBox='0 0 " << total_width << ' '
        << total_height << "' width='" << total_width << "' height='" << total_height << "'>\n"
        << style;
    for (std::size_t i = 0; i < charts.size(); ++i) {
        Field field(out, chart_width * static_cast<double>(i) + left, charts[i]);
        field.axes(charts[i].title);
        for (std::size_t place = 0; place < charts[i].lines.size(); ++place) {
            field.line(charts[i].lines[place], place);
        }
    }
    out << "</svg>\n";
    if (!out.flush()) {
        throw std::runtime_error("cannot write " + path);
    }
}

} // namespace bench
