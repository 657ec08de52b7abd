/// What the device's modules are, learned without trusting them.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/quillonctl/module-answer.h"
#include "tools/quillonctl/modules/module-child.h"
#include "tools/quillonctl/modules/module-registry.h"

namespace quillon {

struct ModuleEntry
{
    std::string name;
    ModuleKind kind = ModuleKind::kUnusable;
    std::string running;             ///< empty when not known
    std::string firmwareName;        ///< of a firmware module
    std::string package;             ///< identifier of its package, of a firmware module
    std::optional<bool> hasPackage;  ///< whether it has been downloaded; nothing: not known
    std::string reason;              ///< why it is unusable, a phrase
    ModuleProblem problem;           ///< its text is what is wrong with one that is usable
    std::string service;  ///< to the running service: "loaded", "refused" or "not-seen"; empty: not
                          ///< known
    std::string serviceReason;  ///< why it is refused, a phrase
};

/// Loads the modules in a child, and asks each for its version. One that crashes, ends the child or
/// does not answer in time is unusable. What they print is not shown, and what the process has open
/// is closed in the child.
///
/// Thread: the process must have no other one, and have loaded no module. Requests to end the
/// program take effect at the end of the call.
/// @param only  the name of the only module to load; empty for all
/// @return one for each module, in the registry's order; none when there is no such module. Throws
///         Failure.
std::vector<ModuleEntry> probeModules(const ModuleTimes& times = {}, const std::string& only = {});

/// As probeModules, with what the running service has recorded of its modules. Those that only the
/// service knows are unusable.
std::vector<ModuleEntry> listModules(const ModuleTimes& times);

/// What the modules say, by probeModules(). Throws Failure.
ModuleAnswers askModules(const ModuleTimes& times);

}  // namespace quillon
