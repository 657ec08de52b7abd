#pragma once

#include <string>

#include "src/support/module-observer.h"

namespace quillon {

/// A result and why it is so.
struct ModuleFinding
{
    int result = 0;
    ModuleReason reason = ModuleReason::kNone;
    std::string detail;
};

/// A reason as a phrase for people: "its package cannot be mounted".
std::string phraseOf(const ModuleFinding& finding);

}  // namespace quillon
