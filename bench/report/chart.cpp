#include "report/chart.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>
#include <utility>

#include "rows/results.h"

namespace quillon::bench {
namespace {

constexpr double kWidth = 360;
constexpr double kHeight = 320;
constexpr double kLeft = 56;
constexpr double kRight = 16;
constexpr double kTop = 34;
constexpr double kBottom = 44;
constexpr double kLegendTop = kHeight + 8;
constexpr double kLegendLine = 16;

// Colours that differ for people who see fewer of them. All, the texts' grey as well, can be read
// on white and on black: whoever shows the picture does not always say which it is.
constexpr const char* kColours[] = {"#0a84c1", "#d1720b", "#2a9d5c", "#b0529c"};
constexpr const char* kLimitColour = "#8a8a8a";

constexpr const char* kStyle =
    "<style>"
    "text{font:12px system-ui,sans-serif;fill:#747d88}"
    ".title{font-weight:600;font-size:13px}"
    ".grid{stroke:#8884;stroke-width:1}"
    ".line{fill:none;stroke-width:2}"
    ".limit{stroke-dasharray:5 4}"
    "</style>";

std::string number(double value)
{
    return fixed(value, 1);
}

std::string escaped(const std::string& text)
{
    std::string safe;
    for (const char c : text) {
        switch (c) {
            case '<':
                safe += "&lt;";
                break;
            case '>':
                safe += "&gt;";
                break;
            case '&':
                safe += "&amp;";
                break;
            default:
                safe += c;
        }
    }
    return safe;
}

/// 1, 10, 100 as they are; fractions without zeros at their end.
std::string label(double power)
{
    return fixed(power, power >= 1 ? 0 : static_cast<int>(std::lround(-std::log10(power))));
}

std::string text(double x, double y, const std::string& content, const std::string& anchor,
                 const std::string& more = "")
{
    return "<text x=\"" + number(x) + "\" y=\"" + number(y) + "\" text-anchor=\"" + anchor + "\"" +
           more + ">" + escaped(content) + "</text>\n";
}

/// A logarithmic axis of whole powers of ten.
class Axis
{
public:
    Axis(double least, double most, double from, double to)
        : first_(static_cast<int>(std::floor(std::log10(least) + 1e-9))),
          last_(std::max(static_cast<int>(std::ceil(std::log10(most) - 1e-9)), first_ + 1)),
          from_(from),
          to_(to)
    {
    }
    double place(double value) const
    {
        return from_ + (to_ - from_) * (std::log10(value) - first_) / (last_ - first_);
    }
    std::vector<double> powers() const
    {
        std::vector<double> all;
        for (int exponent = first_; exponent <= last_; ++exponent) {
            all.push_back(std::pow(10, exponent));
        }
        return all;
    }

private:
    int first_;
    int last_;
    double from_;
    double to_;
};

struct Range
{
    double least = std::numeric_limits<double>::max();
    double most = 0;
    void take(double value)
    {
        least = std::min(least, value);
        most = std::max(most, value);
    }
};

bool hasPoints(const Chart& chart)
{
    return std::any_of(chart.lines.begin(), chart.lines.end(),
                       [](const Line& line) { return !line.points.empty(); });
}

std::string gridLine(double x1, double y1, double x2, double y2)
{
    std::string svg = "<line class=\"grid\"";
    const std::pair<const char*, double> places[] = {
        {"x1", x1}, {"y1", y1}, {"x2", x2}, {"y2", y2}};
    for (const auto& [name, place] : places) {
        svg.append(" ").append(name).append("=\"").append(number(place)).append("\"");
    }
    return svg + "/>\n";
}

std::string drawGrid(const Chart& chart, const Axis& x, const Axis& y)
{
    const double bottom = kHeight - kBottom;
    std::string svg;
    for (const double power : y.powers()) {
        svg += gridLine(kLeft, y.place(power), kWidth - kRight, y.place(power));
        svg += text(kLeft - 6, y.place(power) + 4, label(power), "end");
    }
    for (const double power : x.powers()) {
        svg += gridLine(x.place(power), kTop, x.place(power), bottom);
        svg += text(x.place(power), bottom + 16, label(power), "middle");
    }
    svg += text((kLeft + kWidth - kRight) / 2, 18, chart.title, "middle", " class=\"title\"");
    svg += text((kLeft + kWidth - kRight) / 2, bottom + 34, chart.xTitle, "middle");
    svg += text(14, (kTop + bottom) / 2, chart.yTitle, "middle",
                " transform=\"rotate(-90 14 " + number((kTop + bottom) / 2) + ")\"");
    return svg;
}

std::string drawMark(double x, double y, const char* colour)
{
    return "<circle cx=\"" + number(x) + "\" cy=\"" + number(y) + "\" r=\"3\" fill=\"" + colour +
           "\"/>\n";
}

std::string drawLine(const Line& line, const char* colour, const Axis& x, const Axis& y)
{
    std::string points;
    std::string marks;
    for (const Point& point : line.points) {
        points.append(number(x.place(point.x))).append(",").append(number(y.place(point.y)));
        points += ' ';
        if (!line.isLimit) {
            marks += drawMark(x.place(point.x), y.place(point.y), colour);
        }
    }
    return std::string("<polyline class=\"line") + (line.isLimit ? " limit" : "") + "\" stroke=\"" +
           colour + "\" points=\"" + points + "\"/>\n" + marks;
}

std::string drawLegend(const std::string& name, const char* colour, bool isLimit, std::size_t place)
{
    const double y = kLegendTop + kLegendLine * static_cast<double>(place);
    return "<line class=\"line" + std::string(isLimit ? " limit" : "") + "\" stroke=\"" + colour +
           "\" x1=\"" + number(kLeft) + "\" x2=\"" + number(kLeft + 24) + "\" y1=\"" + number(y) +
           "\" y2=\"" + number(y) + "\"/>\n" + text(kLeft + 32, y + 4, name, "start");
}

std::string draw(const Chart& chart)
{
    Range xs;
    Range ys;
    for (const Line& line : chart.lines) {
        for (const Point& point : line.points) {
            xs.take(point.x);
            ys.take(point.y);
        }
    }
    const Axis x(xs.least, xs.most, kLeft, kWidth - kRight);
    const Axis y(ys.least, ys.most, kHeight - kBottom, kTop);
    std::string svg = drawGrid(chart, x, y);
    std::size_t colour = 0;
    std::size_t place = 0;
    for (const Line& line : chart.lines) {
        const char* stroke = line.isLimit ? kLimitColour : kColours[colour++ % std::size(kColours)];
        svg += drawLine(line, stroke, x, y);
        svg += drawLegend(line.name, stroke, line.isLimit, place++);
    }
    return svg;
}

}  // namespace

std::string toSvg(const std::vector<Chart>& charts)
{
    std::string body;
    double left = 0;
    std::size_t legend = 0;
    for (const Chart& chart : charts) {
        if (!hasPoints(chart)) {
            continue;
        }
        body.append("<g transform=\"translate(").append(number(left)).append(" 0)\">\n");
        body.append(draw(chart)).append("</g>\n");
        left += kWidth;
        legend = std::max(legend, chart.lines.size());
    }
    const double height = kLegendTop + kLegendLine * static_cast<double>(legend);
    return "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" + number(left) + "\" height=\"" +
           number(height) + "\" viewBox=\"0 0 " + number(left) + " " + number(height) + "\">\n" +
           kStyle + "\n" + body + "</svg>\n";
}

}  // namespace quillon::bench
