#include "process/figures-in-document.h"

#include <stdexcept>

namespace quillon::bench {
namespace {

std::size_t lineOf(const std::string& document, const std::string& marker)
{
    const std::size_t place = document.find(marker + "\n");
    if (place == std::string::npos) {
        throw std::runtime_error("the document has no line " + marker);
    }
    return place;
}

}  // namespace

std::string withFigures(const std::string& document, const Markers& markers,
                        const std::string& markdown)
{
    const std::size_t begin = lineOf(document, markers.begin) + std::string(markers.begin).size();
    const std::size_t end = lineOf(document, markers.end);
    if (end < begin) {
        throw std::runtime_error("the document's marker lines are in the wrong order");
    }
    return document.substr(0, begin) + "\n\n" + markdown + "\n" + document.substr(end);
}

}  // namespace quillon::bench
