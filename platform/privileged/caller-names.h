#ifndef QUILLON_PLATFORM_PRIVILEGED_CALLER_NAMES_H
#define QUILLON_PLATFORM_PRIVILEGED_CALLER_NAMES_H

#include <sys/types.h>

#include <optional>
#include <string>

namespace quillon::privileged {

/// @param name  of the user database's, else a number
/// @return nothing when it is neither
std::optional<uid_t> userNamed(const std::string& name);

/// @param name  of the group database's, else a number
/// @return nothing when it is neither
std::optional<gid_t> groupNamed(const std::string& name);

}  // namespace quillon::privileged

#endif
