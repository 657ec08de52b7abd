#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace quillon {

/// Security floors: the least security counter of a module's images, by its firmware name.
using Floors = std::map<std::string, std::uint32_t>;

/// @return whether a text can be a module's firmware name: 1 to 124 ASCII letters and digits.
bool isModuleName(const std::string& text);

/// Reads a floor's number: decimal digits, at most 4294967295.
/// @return false for anything else.
bool parseFloor(const std::string& text, std::uint32_t& floor);

/// Adds the floor that a text "MODULE<separator>NUMBER" names.
/// @return false for any other text, and for a module that has a floor already.
bool addFloor(Floors& floors, const std::string& text, char separator);

/// Raises floors to those of others that are higher; lowers none.
void raiseFloors(Floors& floors, const Floors& others);

/// @return a line "floor.MODULE = NUMBER" for each.
std::string floorsText(const Floors& floors);

}  // namespace quillon
