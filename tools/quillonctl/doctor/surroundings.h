/// What all checks want to know of the device and of who asks.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <ctime>
#include <optional>
#include <string>

#include "tools/quillonctl/doctor/finding.h"
#include "tools/quillonctl/recorded-run.h"

namespace quillon::doctor {

/// A device's own platform may keep its key elsewhere, and raise events in another way.
#ifdef QUILLON_STORAGE_SOCKET
constexpr bool kHasStockPlatform = true;
#else
constexpr bool kHasStockPlatform = false;
#endif

struct Surroundings
{
    bool isRoot = false;
    uid_t servicesUser = 0;
    std::optional<pid_t> service;  ///< the running service
    bool seesProcesses = true;     ///< false: the service may run unseen
    std::time_t now = 0;
    std::optional<RecordedRun> start;     ///< what the service has recorded of its last start
    std::optional<RecordedRun> estimate;  ///< and of its last estimate

    /// Nothing is known of a service that cannot be seen.
    bool isServiceGone() const { return !service && seesProcesses; }
};

Surroundings lookAround();

/// @param name  as the kernel shows it: the first 15 characters
/// @return another process of this name, whoever's it is
std::optional<pid_t> otherProcess(const std::string& name);

/// lstat; nothing when there is nothing, or it cannot be seen.
std::optional<struct stat> statusOf(const std::string& path);

/// Whether somebody other than root and the service has made it.
bool isStrangers(const struct stat& status);

/// Whether the service's user has these rights by owner, group and mode.
/// @param rights  of R_OK, W_OK, X_OK
bool mayServiceUse(const Surroundings& around, const struct stat& status, unsigned rights);

}  // namespace quillon::doctor
