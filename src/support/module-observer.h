#pragma once

#include <atomic>
#include <string>
#include <utility>

/// Tells whoever wants to know what the registry does with each module, and why. Results, log lines
/// and order are the same with and without an observer.
namespace quillon {

enum class ModuleEvent {
    kLoaded,    ///< result of loadSymbol
    kChecking,  ///< the module is about to be asked whether it needs an update
    kDecided,   ///< result: the need value, or -1
    kStarted,   ///< its update begins; told on the thread that updates
    kEnded,     ///< result of the update; told on the same thread, before the guard learns it
    kLate       ///< the guard has stopped waiting; kEnded may come before or after this
};

/// Why a result is what it is.
enum class ModuleReason {
    kNone,
    // Loading
    kNoName,
    kNoLibrary,
    kNotLoadable,  ///< detail: what the dynamic linker says
    kNoEntry,      ///< detail: the required entry
    kNoIdentifier,
    kBadIdentifier,  ///< detail: the identifier
    // Looking for an image
    kNoKey,
    kNoDirectory,
    kNoPackage,
    kNotMounted,
    kNoImage,
    kNoInformation,
    kBadInformation,
    kBadChecksum,
    kNotSigned,
    kNoPlugIn,
    kTooShort,
    kNotDeciphered,
    // What the plug-in answered
    kContextRefused,
    kCheckFailed,
    kUpToDate,
    kNoDuration,
    kUpdateFailed,
    kException
};

struct ModuleNews
{
    ModuleEvent event;
    std::string libName;
    int result = 0;
    ModuleReason reason = ModuleReason::kNone;
    std::string detail;  ///< empty where nothing else is said
};

/// hear() is called on the thread that checks or updates. It must not throw, and must not call the
/// registry.
class ModuleObserver
{
public:
    virtual void hear(const ModuleNews& news) = 0;

protected:
    ~ModuleObserver() = default;
};

/// The observer, or null for none. Set it before the modules are loaded. It must outlive every
/// update.
inline std::atomic<ModuleObserver*> moduleObserver{nullptr};

/// What this thread has last found wrong with a module.
inline thread_local ModuleReason moduleReason = ModuleReason::kNone;
inline thread_local std::string moduleReasonDetail;

/// Notes why the result is what it is.
inline void blame(ModuleReason reason, const std::string& detail = {})
{
    if (moduleObserver.load(std::memory_order_relaxed) != nullptr) {
        moduleReason = reason;
        moduleReasonDetail = detail;
    }
}

/// Notes why a module is refused.
/// @return -1
inline int because(ModuleReason reason, const std::string& detail = {})
{
    blame(reason, detail);
    return -1;
}

/// Tells the observer, with what this thread has noted since it was last told something.
/// @param module  an FWUpdateSymbol
template <typename Module>
void tell(ModuleEvent event, const Module& module, int result = 0)
{
    ModuleObserver* observer = moduleObserver.load(std::memory_order_acquire);
    if (observer == nullptr) {
        return;
    }
    const ModuleReason reason = std::exchange(moduleReason, ModuleReason::kNone);
    const std::string detail = std::exchange(moduleReasonDetail, {});
    observer->hear({event, module.getLibName(), result, reason, detail});
}

}  // namespace quillon
