/// Whom the service runs as.
#pragma once

#include <sys/types.h>

#include <string>

namespace quillon {

/// @return its name; "user 12" for one without
std::string nameOfUser(uid_t user);

/// Whether the service may run as this user: "quillon", or the owner of its directories.
bool isServicesUser(uid_t user);

/// The user "quillon"; on a device without one the owner of the service's directory. Looked up
/// once, since that loads libraries, which a module can block.
uid_t servicesUser();

}  // namespace quillon
