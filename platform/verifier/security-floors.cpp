#include "platform/verifier/security-floors.h"

#include <algorithm>
#include <limits>

namespace quillon {
namespace {

/// Longest firmware name: the package identifier has at most 127 characters, "emp" among them.
constexpr std::size_t kLongestModule = 124;
constexpr std::size_t kMostDigits = 10;

bool isLetterOrDigit(unsigned char character)
{
    return (character >= '0' && character <= '9') || (character >= 'A' && character <= 'Z') ||
           (character >= 'a' && character <= 'z');
}

}  // namespace

bool isModuleName(const std::string& text)
{
    return !text.empty() && text.size() <= kLongestModule &&
           std::all_of(text.begin(), text.end(), isLetterOrDigit);
}

bool parseFloor(const std::string& text, std::uint32_t& floor)
{
    if (text.empty() || text.size() > kMostDigits ||
        text.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    const unsigned long long number = std::stoull(text);
    floor = static_cast<std::uint32_t>(number);
    return number <= std::numeric_limits<std::uint32_t>::max();
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
