#include "base/task-start.h"

#include <unistd.h>

#include <fstream>
#include <sstream>

namespace quillon {

double startOfTask(const std::string& directory)
{
    constexpr int kFieldsBetween = 19;  // from the name, which may hold anything, to field 22
    std::ifstream file(directory + "/stat");
    std::string text;
    std::getline(file, text, '\0');
    std::istringstream fields(text.substr(text.rfind(')') + 1));
    for (int i = 0; i < kFieldsBetween; ++i) {
        fields >> text;
    }
    double ticks = 0;
    fields >> ticks;
    return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

}  // namespace quillon
