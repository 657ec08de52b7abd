#include "base/task-start.h"

#include <unistd.h>

#include <fstream>
#include <sstream>

namespace quillon {

namespace {

/// @return the fields of a task after its name, which may hold anything
std::istringstream fieldsOf(const std::string& directory)
{
    std::ifstream file(directory + "/stat");
    std::string text;
    std::getline(file, text, '\0');
    return std::istringstream(text.substr(text.rfind(')') + 1));
}

}  // namespace

double startOfTask(const std::string& directory)
{
    constexpr int kFieldsBetween = 19;  // from the name to field 22
    std::istringstream fields = fieldsOf(directory);
    std::string text;
    for (int i = 0; i < kFieldsBetween; ++i) {
        fields >> text;
    }
    double ticks = 0;
    fields >> ticks;
    return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

bool isUnreapedTask(const std::string& directory)
{
    std::string state;
    fieldsOf(directory) >> state;
    return state == "Z";
}

}  // namespace quillon
