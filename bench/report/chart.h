#ifndef QUILLON_BENCH_REPORT_CHART_H
#define QUILLON_BENCH_REPORT_CHART_H

#include <string>
#include <vector>

namespace quillon::bench {

struct Point
{
    double x = 0;
    double y = 0;
};

/// One line of a chart. All values are above 0.
struct Line
{
    std::string name;
    std::vector<Point> points;
    bool isLimit = false;  ///< dashed: what the others are held against
};

/// One chart with both axes logarithmic.
struct Chart
{
    std::string title;
    std::string xTitle;
    std::string yTitle;
    std::vector<Line> lines;
};

/// The charts as one SVG picture, side by side, which can be read on a light and on a dark ground.
/// A chart without points is left out.
std::string toSvg(const std::vector<Chart>& charts);

}  // namespace quillon::bench

#endif
