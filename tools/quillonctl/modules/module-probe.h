/// What the device's modules are, learned without trusting them.
#pragma once

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
    std::string running;       ///< empty when not known
    std::string firmwareName;  ///< of a firmware module
    std::string package;       ///< identifier of its package, of a firmware module
    bool hasPackage = false;   ///< whether the package has been downloaded
    std::string reason;        ///< why it is unusable, a phrase
    ModuleProblem problem;     ///< its text is what is wrong with one that is usable
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

/// What the modules say, by probeModules(). Throws Failure.
ModuleAnswers askModules(const ModuleTimes& times);

}  // namespace quillon
