#include "tools/quillon-device/mount-table.h"

#include <fstream>
#include <set>
#include <sstream>

namespace quillon::device {

namespace {

constexpr int kPointField = 5;  // after id, parent, device and root

/// The kernel writes blanks, newlines and backslashes of a name as "\ooo".
std::string unescaped(std::string name)
{
    for (std::size_t at = 0; (at = name.find('\\', at)) != std::string::npos; ++at) {
        name.replace(at, 4, 1, static_cast<char>(std::stoi(name.substr(at + 1, 3), nullptr, 8)));
    }
    return name;
}

}  // namespace

std::vector<std::string> mountPoints()
{
    std::set<std::string> points;
    std::ifstream table("/proc/self/mountinfo");
    for (std::string line; std::getline(table, line);) {
        std::istringstream fields(line);
        std::string field;
        for (int number = 1; number <= kPointField; ++number) {
            fields >> field;
        }
        if (fields) {
            points.insert(unescaped(field));
        }
    }
    return {points.begin(), points.end()};
}

}  // namespace quillon::device
