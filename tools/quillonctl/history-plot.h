/// A picture of how long updates took, beside how long they were expected to take.
#pragma once

#include <string>
#include <vector>

namespace quillon {

struct PastUpdate;

/// Two bars for each of a module's latest updates, the modules in the order of their names. With
/// one module its ten latest updates are shown, with many modules the latest of each.
/// @return an SVG document
std::string plotOf(const std::vector<PastUpdate>& updates);

/// Writes the picture in one step: the file holds all of it or is what it was.
/// @param file  a link or anything else that is no regular file is refused
/// Throws Failure.
void writePlot(const std::string& file, const std::vector<PastUpdate>& updates);

}  // namespace quillon
