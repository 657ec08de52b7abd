#include "platform/verifier/security-floors.h"

#include <algorithm>
#include <charconv>
#include <system_error>

#include "base/alphanumeric.h"

namespace quillon {
namespace {

/// Longest firmware name: the package identifier has at most 127 characters, "emp" among them.
constexpr std::size_t kLongestModule = 124;
constexpr std::size_t kMostDigits = 10;

}  // namespace

bool isModuleName(const std::string& text)
{
    return isAlphanumeric(text) && text.size() <= kLongestModule;
}

bool parseFloor(const std::string& text, std::uint32_t& floor)
{
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, floor);
    return error == std::errc() && stop == end && text.size() <= kMostDigits;
}

bool addFloor(Floors& floors, const std::string& text, char separator)
{
    const std::size_t end = text.find(separator);
    const std::string module = text.substr(0, end);
    std::uint32_t floor = 0;
    return end != std::string::npos && isModuleName(module) &&
           parseFloor(text.substr(end + 1), floor) && floors.emplace(module, floor).second;
}

void raiseFloors(Floors& floors, const Floors& others)
{
    for (const auto& [module, floor] : others) {
        std::uint32_t& ours = floors[module];
        ours = std::max(ours, floor);
    }
}

std::string floorsText(const Floors& floors)
{
    std::string text;
    for (const auto& [module, floor] : floors) {
        text.append("floor.").append(module).append(" = ");
        text.append(std::to_string(floor)).append("\n");
    }
    return text;
}

}  // namespace quillon
