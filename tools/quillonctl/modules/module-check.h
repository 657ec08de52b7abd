/// Which modules need an update.
#ifndef QUILLON_QUILLONCTL_MODULE_CHECK_H
#define QUILLON_QUILLONCTL_MODULE_CHECK_H

#include <cstdint>
#include <string>
#include <vector>

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
    std::string running;        ///< empty when not known
    std::string offered;        ///< empty when there is none
    std::uint32_t seconds = 0;  ///< expected duration, of one that needs an update
    std::string reason;         ///< of all but kNeeded and kUpToDate, a phrase
};

enum class CheckEnd {
    kDone,
    kStopped,     ///< the flag was cleared
    kUnsafeList,  ///< the update list's path leads elsewhere
    kPartialList  ///< the update list could not be written whole
};

/// Asks every module, and leaves the marks that a run goes by. For packages the update list is
/// published; the packages stay mounted.
///
/// @param running  read before each module
/// @param[out] checks  one for each module, in the registry's order; when stopped, not to be used
CheckEnd checkModules(const ModuleSource& source, bool& running, std::vector<ModuleCheck>& checks);

/// What the latest check of this module came to.
ModuleCheck describeCheck(FWUpdateSymbol& module, const ModuleSource& source);

/// Whether each module is unusable; so it is when there are none.
bool isNoneUsable(const std::vector<ModuleCheck>& checks);

/// Unmounts what checks have mounted.
void releasePackages(const ModuleSource& source);

}  // namespace quillon

#endif
