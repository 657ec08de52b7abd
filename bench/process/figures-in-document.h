#ifndef QUILLON_BENCH_PROCESS_FIGURES_IN_DOCUMENT_H
#define QUILLON_BENCH_PROCESS_FIGURES_IN_DOCUMENT_H

#include <string>

namespace quillon::bench {

/// The two lines between which a document carries figures.
struct Markers
{
    const char* begin;
    const char* end;
};

constexpr Markers kFootprintMarkers = {"<!-- figures: begin (make footprint writes them) -->",
                                       "<!-- figures: end -->"};
constexpr Markers kPerformanceMarkers = {"<!-- figures: begin (make bench writes them) -->",
                                         "<!-- figures: end -->"};

/// @return the document with the lines between the two marker lines replaced.
/// @throws std::runtime_error when it does not have both of them, in this order
std::string withFigures(const std::string& document, const Markers& markers,
                        const std::string& markdown);

}  // namespace quillon::bench

#endif
