#pragma once

#include <string>
#include <vector>

namespace quillon {

using TableRow = std::vector<std::string>;

/// Lines in which the columns begin at the same place. All but the last column are made printable
/// and cut to 40 characters.
/// @param rows  of the same length
std::vector<std::string> aligned(std::vector<TableRow> rows);

}  // namespace quillon
