#pragma once

#include <string>

#include "platform/verifier/security-floors.h"

namespace quillon {

enum class FloorResult {
    kUnchanged,  ///< none of them is higher than what is stored
    kRaised,
    kFailed,  ///< what is stored stays as it was; the log names the reason
};

/// Raises the security floors that the device keeps, in a file that all may read; lowers none. Each
/// floor that is raised, and each that stays although the package has a lower one, is told on the
/// log.
/// @param package  who brings them, for the log
/// Safe against other processes that do the same. Thread: any. Throws std::bad_alloc.
FloorResult raiseStoredFloors(const std::string& package, const Floors& floors);

}  // namespace quillon
