#include "report/charts-of-results.h"

#include "footprint/measure.h"
#include "rows/results.h"

namespace quillon::bench {
namespace {

Chart deciphering(const Json::Value& results)
{
    Line service{"service", {}, false};
    Line plain{"plain loop", {}, false};
    Line limit{"limit: the goal's share of the plain loop", {}, true};
    for (const Json::Value& point : results["deciphering"]) {
        const double size = point["bytes"].asDouble() / kMebibyte;
        const double goal = point["goal"].asDouble();
        service.points.push_back({size, point["service"].asDouble()});
        plain.points.push_back({size, point["plain"].asDouble()});
        if (goal > 0) {
            limit.points.push_back({size, point["plain"].asDouble() / goal});
        }
    }
    return {"Deciphering", "image in MiB", "ms", {service, plain, limit}};
}

Chart start(const Json::Value& results)
{
    Line service{"service", {}, false};
    Line floor{"do-nothing process, modules opened", {}, false};
    Line limit{"limit: that × 1.3 + 2 ms", {}, true};
    for (const Json::Value& element : results["start"]) {
        const Point point = {element["modules"].asDouble(), element["time"]["median"].asDouble()};
        if (element["process"].asString() == kService) {
            service.points.push_back(point);
        } else if (element["process"].asString() == kModulesFloor) {
            floor.points.push_back(point);
            limit.points.push_back({point.x, point.y * 1.3 + 2});
        }
    }
    return {"Start to READY", "modules", "ms", {service, floor, limit}};
}

Chart estimate(const Json::Value& results)
{
    Line cached{"images in the page cache", {}, false};
    Line slow{"images on a medium of 40 MB/s", {}, false};
    Line limit{"limit: the medium alone", {}, true};
    for (const Json::Value& bound : results["bounds"]) {
        if (bound["phase"].asString() != "estimate") {
            continue;
        }
        const Point point = {bound["modules"].asDouble(), bound["seconds"].asDouble()};
        if (bound["setting"].asString() == "in the page cache") {
            cached.points.push_back(point);
        } else if (bound["setting"].asString() == "at 40 MB/s, read once") {
            slow.points.push_back(point);
            limit.points.push_back({point.x, bound["medium"].asDouble()});
        }
    }
    const std::string size = fixed(results["boundsImageBytes"].asDouble() / kMebibyte, 0);
    return {"Estimate, images of " + size + " MiB", "modules", "s", {cached, slow, limit}};
}

}  // namespace

std::vector<Chart> chartsOf(const Json::Value& results)
{
    return {deciphering(results), start(results), estimate(results)};
}

}  // namespace quillon::bench
