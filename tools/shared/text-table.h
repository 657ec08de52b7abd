#pragma once

#include <string>
#include <vector>

namespace quillon {

/// @return "-" for an empty text
std::string orDash(const std::string& text);

/// Two phrases, either of which may be empty, as one.
std::string joined(const std::string& text, const std::string& more);

using TableRow = std::vector<std::string>;

/// Lines in which the columns begin at the same place. All but the last column are made printable
/// and cut to 40 characters.
/// @param rows  of the same length
std::vector<std::string> aligned(std::vector<TableRow> rows);

}  // namespace quillon
