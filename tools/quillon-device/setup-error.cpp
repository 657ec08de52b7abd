#include "tools/quillon-device/setup-error.h"

#include <cerrno>
#include <cstring>
#include <iostream>

namespace quillon::device {

void failWithErrno(const std::string& what)
{
    throw SetupError(what + ": " + std::strerror(errno));
}

void complain(const std::string& line)
{
    std::cerr << "quillon-device: " + line + "\n";
}

}  // namespace quillon::device
