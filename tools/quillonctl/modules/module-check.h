/// Which modules need an update.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "tools/quillonctl/modules/module-child.h"
#include "tools/quillonctl/modules/module-registry.h"
#include "tools/quillonctl/modules/module-source.h"

namespace quillon {

enum class Decision {
    kNeeded,
    kUpToDate,
    kNothingOffered,  ///< the source has nothing for the module
    kUnsound,         ///< what the source has cannot be used, or the plug-in did not answer
    kByNameOnly,      ///< a process module
    kUnusable         ///< the module did not load
};

struct ModuleCheck
{
    std::string name;
    Decision decision = Decision::kUnusable;
    std::string running;           ///< empty when not known
    std::string offered;           ///< empty when there is none
    std::uint32_t seconds = 0;     ///< expected duration, of one that needs an update
    std::string reason;            ///< of all but kNeeded and kUpToDate, a phrase
    ModuleProblem problem;         ///< its text is what is wrong beside the reason
    ExitCode code = kExitSuccess;  ///< what a package that cannot be mounted ends a check with
    std::string remedy;            ///< what to do about that package, a line; empty for nothing
};

/// Why a module's package cannot be mounted.
struct MountTrouble
{
    ExitCode code = kExitSystem;  ///< kExitAlreadyUpdating: another control layer uses it
    std::string reason;           ///< a phrase
    std::string remedy;           ///< a line with the package, the module and the next command
};
MountTrouble mountTroubleOf(const FWUpdateSymbol& module);

/// Asks every module, and leaves the marks that a run goes by. For packages the update list is
/// published; the packages stay mounted.
///
/// @return one for each module, in the registry's order. Throws Failure when the program is asked
///         to end, and when the update list cannot be published.
std::vector<ModuleCheck> checkModules(const ModuleSource& source);

/// As checkModules in a child of this process, which releases the packages again. A module that
/// crashes, ends the child or does not answer in time is unusable.
/// @param child  a new one; knows afterwards what may still be mounted
std::vector<ModuleCheck> checkModulesApart(ModuleChild& child, const ModuleSource& source);

/// What the latest check of this module came to.
ModuleCheck describeCheck(FWUpdateSymbol& module, const ModuleSource& source);

/// Whether there are modules and each is unusable.
bool isNoneUsable(const std::vector<ModuleCheck>& checks);

/// @return the code of a package that cannot be mounted; kExitSuccess where each can
ExitCode mountTroubleIn(const std::vector<ModuleCheck>& checks);

/// Unmounts the module's package if it is mounted.
/// @return false when it stays mounted
bool releasePackage(FWUpdateSymbol& module);

/// Unmounts what checks have mounted.
void releasePackages(const ModuleSource& source);
/// @param identifiers  of packages
void releasePackages(const std::set<std::string>& identifiers);
/// Also true when that cannot be told: descriptors may be used up.
bool isPackageMounted(const std::string& identifier);

/// Why the update list is neither that of this check nor one of the service's user.
/// @return empty when it is one of these
std::string troubleOfList();

}  // namespace quillon
