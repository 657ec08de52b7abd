#include "process/memory.h"

#include <fstream>
#include <limits>
#include <map>
#include <stdexcept>
#include <string>

namespace quillon::bench {
namespace {

long fieldOf(const std::map<std::string, long>& fields, const std::string& name)
{
    const auto found = fields.find(name);
    if (found == fields.end()) {
        throw std::runtime_error("smaps_rollup has no " + name);
    }
    return found->second;
}

}  // namespace

Memory parseSmapsRollup(std::istream& text)
{
    constexpr auto kWholeLine = std::numeric_limits<std::streamsize>::max();
    text.ignore(kWholeLine, '\n');  // the address range
    std::map<std::string, long> fields;
    std::string name;
    for (long kilobytes = 0; text >> name >> kilobytes;) {
        fields[name] = kilobytes;
        text.ignore(kWholeLine, '\n');
    }
    return {fieldOf(fields, "Rss:"), fieldOf(fields, "Pss:"),
            fieldOf(fields, "Private_Clean:") + fieldOf(fields, "Private_Dirty:"),
            fieldOf(fields, "Anonymous:")};
}

Memory memoryOf(pid_t process)
{
    const std::string path = "/proc/" + std::to_string(process) + "/smaps_rollup";
    std::ifstream file(path);
    if (!file) {
        throw std::runtime_error(path + " cannot be read");
    }
    return parseSmapsRollup(file);
}

}  // namespace quillon::bench
