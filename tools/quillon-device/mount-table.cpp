#include "tools/quillon-device/mount-table.h"

#include <fstream>
#include <set>
#include <sstream>

namespace quillon::device {

namespace {

bool isOctal(char digit)
{
    return digit >= '0' && digit <= '7';
}

/// The kernel writes blanks, newlines and backslashes of a name as "\ooo".
std::string unescaped(const std::string& field)
{
    std::string name;
    for (std::size_t i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size() && isOctal(field[i + 1]) &&
            isOctal(field[i + 2]) && isOctal(field[i + 3])) {
            const int value =
                (field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 + (field[i + 3] - '0');
            name += static_cast<char>(value);
            i += 3;
        } else {
            name += field[i];
        }
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
        std::string id;
        std::string parent;
        std::string device;
        std::string root;
        std::string point;
        if (fields >> id >> parent >> device >> root >> point) {
            points.insert(unescaped(point));
        }
    }
    return {points.begin(), points.end()};
}

}  // namespace quillon::device
