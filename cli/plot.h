// A small chart as an SVG image: what a person puts beside a table.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace kelvane::cli {

struct Series {
    std::string name;
    std::vector<std::pair<double, double>> points; // x ascending; nothing is negative
    bool measured = true; // a line with its points and their values; otherwise a dashed reference
};

struct Chart {
    std::string title;
    std::string subtitle;
    std::string xLabel;
    std::string yLabel;
    std::vector<Series> series;
};

// Both axes begin at 0. The document ends in a newline.
std::string svg(const Chart& chart);

// A step of 1, 2 or 5 times a power of ten that takes at most `most` steps to `range`, which is
// above 0.
double niceStep(double range, int most);

} // namespace kelvane::cli
