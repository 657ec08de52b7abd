#include "tools/shared/services-user.h"

#include <pwd.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <optional>

namespace quillon {

namespace {

/// Both belong to the service's user: its home, and where it keeps its keys.
constexpr std::array<const char*, 2> kServicesDirectories = {"/var/lib/quillon",
                                                             QUILLON_SECURE_STORAGE};

std::optional<uid_t> ownerOf(const char* directory)
{
    struct stat status = {};
    const bool isThere = lstat(directory, &status) == 0 && S_ISDIR(status.st_mode);
    return isThere ? std::optional(status.st_uid) : std::nullopt;
}

std::optional<uid_t> userQuillon()
{
    const passwd* entry = getpwnam("quillon");
    return entry != nullptr ? std::optional(entry->pw_uid) : std::nullopt;
}

}  // namespace

std::string nameOfUser(uid_t user)
{
    const passwd* entry = getpwuid(user);
    return entry == nullptr ? "user " + std::to_string(user) : entry->pw_name;
}

bool isServicesUser(uid_t user)
{
    return userQuillon() == user ||
           std::any_of(kServicesDirectories.begin(), kServicesDirectories.end(),
                       [&](const char* directory) { return ownerOf(directory) == user; });
}

uid_t servicesUser()
{
    static const uid_t user = userQuillon().value_or(ownerOf(kServicesDirectories[0]).value_or(0));
    return user;
}

}  // namespace quillon
