#ifndef QUILLON_BENCH_FOOTPRINT_REPORT_H
#define QUILLON_BENCH_FOOTPRINT_REPORT_H

#include <json/json.h>

#include <string>

namespace quillon::bench {

/// The figures as Markdown: the machine, then a table each of size, memory and start.
/// @param figures  "machine" (a line), "size" as strippedSizes, and what measureInDevice returns
std::string toMarkdown(const Json::Value& figures);

}  // namespace quillon::bench

#endif
