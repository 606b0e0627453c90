#include "cli/plot.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>

namespace kelvane::cli {
namespace {

constexpr int kWidth = 760;
constexpr int kHeight = 460;
constexpr int kLeft = 72; // of the area that the axes span
constexpr int kTop = 76;
constexpr int kRight = kWidth - 28;
constexpr int kBottom = kHeight - 60;
constexpr std::array kColours = {"#1f5fa8", "#8a8f98"};

std::string escaped(const std::string& text) {
    std::string safe;
    for (const char c : text) {
        switch (c) {
        case '&':
            safe += "&amp;";
            break;
        case '<':
            safe += "&lt;";
            break;
        case '>':
            safe += "&gt;";
            break;
        default:
            safe += c;
        }
    }
    return safe;
}

// From values to places on the image.
struct Axis {
    double step; // between ticks
    double end;  // a multiple of the step, at or above every value
    int from, to;

    Axis(double greatest, int ticks, int start, int stop)
        : step(niceStep(std::max(greatest, 1e-9), ticks)),
          end(std::ceil(greatest / step - 1e-9) * step), from(start), to(stop) {
        end = std::max(end, step);
    }
    double place(double value) const { return from + (to - from) * value / end; }
    int ticks() const { return static_cast<int>(std::lround(end / step)); }
};

std::string textAt(double x, double y, const char* style, const std::string& text) {
    return fmt::format("<text x=\"{:.1f}\" y=\"{:.1f}\" {}>{}</text>\n", x, y, style,
                       escaped(text));
}

std::string gridText(const Axis& x, const Axis& y) {
    std::string text = "<g stroke=\"#dfe3e8\">\n";
    for (int i = 1; i <= y.ticks(); ++i) {
        text += fmt::format("<path d=\"M{} {:.1f}H{}\"/>\n", kLeft, y.place(i * y.step), kRight);
    }
    text += "</g>\n<g fill=\"#4a5058\">\n";
    for (int i = 0; i <= y.ticks(); ++i) {
        text += textAt(kLeft - 8, y.place(i * y.step) + 4, "text-anchor=\"end\"",
                       fmt::format("{:g}", i * y.step));
    }
    for (int i = 0; i <= x.ticks(); ++i) {
        text += textAt(x.place(i * x.step), kBottom + 18, "text-anchor=\"middle\"",
                       fmt::format("{:g}", i * x.step));
    }
    return text + fmt::format("</g>\n<path d=\"M{} {}V{}H{}\" fill=\"none\" stroke=\"#4a5058\"/>\n",
                              kLeft, kTop, kBottom, kRight);
}

std::string seriesText(const Series& series, const char* colour, const Axis& x, const Axis& y) {
    std::string path;
    std::string marks;
    double labelled = -100; // where the last value was written: they must not run into one another
    for (const auto& [px, py] : series.points) {
        const double left = x.place(px);
        const double top = y.place(py);
        path += fmt::format("{}{:.1f} {:.1f}", path.empty() ? "M" : "L", left, top);
        if (series.measured) {
            marks += fmt::format("<circle cx=\"{:.1f}\" cy=\"{:.1f}\" r=\"3.5\"/>\n", left, top);
            if (left - labelled >= 34) {
                marks +=
                    textAt(left - 6, top - 8, "text-anchor=\"end\"", fmt::format("{:.1f}", py));
                labelled = left;
            }
        }
    }
    return fmt::format("<path d=\"{}\" fill=\"none\" stroke=\"{}\" stroke-width=\"{}\"{}/>\n", path,
                       colour, series.measured ? "2" : "1.5",
                       series.measured ? "" : " stroke-dasharray=\"6 4\"") +
           fmt::format("<g fill=\"{}\">\n{}</g>\n", colour, marks);
}

std::string legendText(const Chart& chart) {
    std::string text;
    int y = kTop + 18;
    for (std::size_t i = 0; i < chart.series.size(); ++i, y += 20) {
        text += fmt::format("<path d=\"M{} {}h28\" stroke=\"{}\" stroke-width=\"2\"{}/>\n",
                            kLeft + 16, y - 4, kColours[i % kColours.size()],
                            chart.series[i].measured ? "" : " stroke-dasharray=\"6 4\"");
        text += textAt(kLeft + 52, y, "fill=\"#1c2024\"", chart.series[i].name);
    }
    return text;
}

} // namespace

double niceStep(double range, int most) {
    const double least = range / most;
    const double power = std::pow(10.0, std::floor(std::log10(least)));
    for (const double factor : {1.0, 2.0, 5.0}) {
        if (factor * power >= least * (1 - 1e-9)) {
            return factor * power;
        }
    }
    return 10 * power;
}

std::string svg(const Chart& chart) {
    double right = 0;
    double top = 0;
    for (const Series& series : chart.series) {
        for (const auto& [x, y] : series.points) {
            right = std::max(right, x);
            top = std::max(top, y);
        }
    }
    const Axis x(right, 12, kLeft, kRight);
    const Axis y(top * 1.05, 8, kBottom, kTop);
    std::string text =
        fmt::format("<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"{0}\" height=\"{1}\" "
                    "viewBox=\"0 0 {0} {1}\" font-family=\"sans-serif\" font-size=\"12\">\n"
                    "<rect width=\"{0}\" height=\"{1}\" fill=\"#ffffff\"/>\n",
                    kWidth, kHeight);
    text +=
        textAt(kLeft, 30, "font-size=\"17\" font-weight=\"bold\" fill=\"#1c2024\"", chart.title);
    text += textAt(kLeft, 50, "fill=\"#4a5058\"", chart.subtitle);
    text += gridText(x, y);
    for (std::size_t i = chart.series.size(); i-- > 0;) { // the first lies on top
        text += seriesText(chart.series[i], kColours[i % kColours.size()], x, y);
    }
    text += legendText(chart);
    text += textAt((kLeft + kRight) / 2.0, kHeight - 20, "text-anchor=\"middle\" fill=\"#1c2024\"",
                   chart.xLabel);
    text += textAt(0, 0,
                   fmt::format("transform=\"translate(22 {}) rotate(-90)\" "
                               "text-anchor=\"middle\" fill=\"#1c2024\"",
                               (kTop + kBottom) / 2)
                       .c_str(),
                   chart.yLabel);
    return text + "</svg>\n";
}

} // namespace kelvane::cli
