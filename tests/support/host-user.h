#pragma once

#include <grp.h>
#include <pwd.h>

#include <cstdlib>
#include <string>

#include "support/process.h"

namespace quillon::test {

/// Takes a user and a group that the host has off a private device of root's, where nobody else
/// misses them.
/// @return whether there is neither now
inline bool forgetHostsUser(const std::string& name)
{
    const char* way = std::getenv("QUILLON_DEVICE");
    if (way != nullptr && std::string(way) == "root") {
        outputOf("sed -i '/^" + name + ":/d' /etc/passwd /etc/group");
    }
    return getpwnam(name.c_str()) == nullptr && getgrnam(name.c_str()) == nullptr;
}

}  // namespace quillon::test
