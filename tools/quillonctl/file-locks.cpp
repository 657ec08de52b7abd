#include "tools/quillonctl/file-locks.h"

#include <sys/sysmacros.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

namespace quillon {

namespace {

/// A file as the kernel's list of locks names it: "00:2a:17", the device in hexadecimal.
std::string fileInLocks(const struct stat& status)
{
    char text[64];
    static_cast<void>(std::snprintf(text, sizeof text, "%02x:%02x:%ju", major(status.st_dev),
                                    minor(status.st_dev), std::uintmax_t{status.st_ino}));
    return text;
}

}  // namespace

std::optional<pid_t> flockHolder(const struct stat& file)
{
    const std::string wanted = fileInLocks(file);
    std::ifstream locks("/proc/locks");
    for (std::string line; std::getline(locks, line);) {
        // A line of somebody who waits for a lock has "->" in the place of the kind.
        std::istringstream words(line);
        std::string number;
        std::string kind;
        std::string way;
        std::string access;
        pid_t process = 0;
        std::string place;
        if (words >> number >> kind >> way >> access >> process >> place && kind == "FLOCK" &&
            place == wanted) {
            return process;
        }
    }
    return std::nullopt;
}

}  // namespace quillon
