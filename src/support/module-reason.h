#pragma once

#include <string>

#include "support/module-observer.h"

namespace quillon {

/// A reason as records and JSON output have it: "not-signed". Stable. kNone is "".
const char* codeOf(ModuleReason reason);

/// @return the reason of that code; kNone for a code that is none
ModuleReason reasonOf(const std::string& code);

}  // namespace quillon
