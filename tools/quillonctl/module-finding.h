#pragma once

#include <optional>
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

/// What became of an update whose time was over before its end, a phrase.
/// @param end  nothing while it goes on
std::string phraseOfLate(const std::optional<ModuleFinding>& end);

/// What is strange about an update that the module says has succeeded, a phrase.
/// @param before, after, offered  versions; empty where one is not known
/// @return empty when nothing is
std::string phraseOfSuccess(const std::string& before, const std::string& after,
                            const std::string& offered);

/// The same as a warning with its remedy.
/// @param phrase  of phraseOfSuccess(), not empty
std::string warningOfSuccess(const std::string& module, const std::string& phrase);

}  // namespace quillon
