#include "tools/quillon-device/setup-error.h"

#include <cerrno>
#include <cstring>
#include <iostream>

namespace quillon::device {

void require(bool succeeded, const std::string& what)
{
    if (!succeeded) {
        throw SetupError(what + ": " + std::strerror(errno));
    }
}

void complain(const std::string& line)
{
    std::cerr << "quillon-device: " + line + "\n";
}

}  // namespace quillon::device
