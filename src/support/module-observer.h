#pragma once

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <exception>
#include <string>
#include <utility>

/// Tells whoever wants to know what the registry does with each module, and why. Results, log lines
/// and order are the same with and without an observer.
namespace quillon {

enum class ModuleEvent {
    kLoading,   ///< its library is about to be loaded
    kLoaded,    ///< result of loadSymbol
    kChecking,  ///< the module is about to be asked whether it needs an update
    kDecided,   ///< result: the need value, or -1
    kStarted,   ///< its update begins; told on the thread that updates
    kFlashing,  ///< its plug-in is about to be asked to install; told on the same thread, only if
                ///< nothing before has ended the update, and without what has been noted so far
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
    std::string detail{};   ///< empty where nothing else is said
    std::string offered{};  ///< version of the image that was looked at; empty if none was
    int seconds = 0;        ///< how long its update is expected to take, as far as is known
};

enum class RunEvent {
    kModulesLoaded,  ///< each module has been loaded or refused; result 0
    kEstimateBegan,  ///< a stick is about to be looked at
    kEstimateEnded,  ///< result of getFirmwareUpdateTime
    kUpdateBegan,    ///< the marked modules are about to be updated from a stick
    kUpdateEnded     ///< result of doUpdateUSB; -1 when an exception has ended it
};

struct RunNews
{
    RunEvent event;
    const char* directory;  ///< as the client has set it; empty where there is none, never null
    int result = 0;
};

/// All are called on the thread that checks or updates. They must not call the registry. They may
/// change errno, and the first two may throw what is derived from std::exception: callers restore
/// errno and drop exceptions.
class ModuleObserver
{
public:
    virtual void hear(const ModuleNews& news) = 0;
    virtual void hearRun(const RunNews& /*news*/) {}

    /// An event was lost or only partly heard, usually because memory ran out.
    /// @{
    virtual void miss(ModuleEvent /*event*/) noexcept {}
    virtual void missRun(RunEvent /*event*/) noexcept {}
    /// @}

protected:
    ~ModuleObserver() = default;
};

/// The observer, or null for none. Set it before the modules are loaded. It must outlive every
/// update.
inline std::atomic<ModuleObserver*> moduleObserver{nullptr};

/// What this thread has last found wrong with a module.
inline thread_local ModuleReason moduleReason = ModuleReason::kNone;

/// A thread's text, cut to its size. It has no destructor: to register one for a thread, the C++
/// library allocates memory, and ends the process where there is none.
template <std::size_t size>
struct NotedText
{
    void note(const char* noted)
    {
        const std::size_t length = strnlen(noted, size - 1);
        std::memcpy(text, noted, length);
        text[length] = '\0';
    }
    void clear() { text[0] = '\0'; }

    char text[size];
};
inline thread_local NotedText<4097> moduleReasonDetail{};

/// The version of the image that this thread has last looked at.
inline thread_local NotedText<1025> offeredVersion{};

/// Does work for the observer without an effect on the run: restores errno, which log lines print,
/// and drops exceptions, as when memory runs out.
/// @return whether it was done to its end
template <typename Work>
bool unnoticed(Work work)
{
    const int callersErrno = errno;
    bool isDone = false;
    try {
        work();
        isDone = true;
    } catch (const std::exception&) {
        // Then the observer does not learn of it.
    }
    errno = callersErrno;
    return isDone;
}

/// Notes why the result is what it is.
inline void blame(ModuleReason reason, const char* detail = "")
{
    if (moduleObserver.load(std::memory_order_relaxed) != nullptr) {
        moduleReason = reason;
        moduleReasonDetail.note(detail);
    }
}

/// Notes why a module is refused.
/// @return -1
inline int because(ModuleReason reason, const char* detail = "")
{
    blame(reason, detail);
    return -1;
}

/// Notes the version of the image that is being looked at.
inline void offer(const char* version)
{
    if (moduleObserver.load(std::memory_order_relaxed) != nullptr) {
        offeredVersion.note(version);
    }
}

/// Tells the observer, and where that fails, that it has missed something. Without an effect on
/// errno.
template <typename Hear, typename Miss>
void tellObserver(Hear hear, Miss miss)
{
    ModuleObserver* observer = moduleObserver.load(std::memory_order_acquire);
    if (observer == nullptr) {
        return;
    }
    const int callersErrno = errno;
    if (!unnoticed([&] { hear(*observer); })) {
        miss(*observer);
    }
    errno = callersErrno;
}

/// Tells the observer, with what this thread has noted since it was last told something.
/// @param module  an FWUpdateSymbol
template <typename Module>
void tell(ModuleEvent event, const Module& module, int result = 0)
{
    if (moduleObserver.load(std::memory_order_relaxed) == nullptr) {
        return;
    }
    tellObserver(
        [&](ModuleObserver& observer) {
            const ModuleReason reason = std::exchange(moduleReason, ModuleReason::kNone);
            observer.hear({event, module.getLibName(), result, reason, moduleReasonDetail.text,
                           offeredVersion.text, module.getExpectedUpdateTime()});
        },
        [&](ModuleObserver& observer) { observer.miss(event); });
    moduleReasonDetail.clear();
    offeredVersion.clear();
}

/// Tells the observer of kFlashing. What this thread has noted waits for the end of the update.
/// @param libName  of the module
inline void tellFlashing(const std::string& libName)
{
    tellObserver(
        [&](ModuleObserver& observer) {
            observer.hear({ModuleEvent::kFlashing, libName});
        },
        [](ModuleObserver& observer) { observer.miss(ModuleEvent::kFlashing); });
}

/// Tells the observer of a run.
inline void tellRun(const RunNews& news)
{
    tellObserver([&](ModuleObserver& observer) { observer.hearRun(news); },
                 [&](ModuleObserver& observer) { observer.missRun(news.event); });
}

/// Tells the observer that a run begins, and with the end of the object that it is over.
class ToldRun
{
public:
    /// @param directory  null is told as empty; must outlive this object
    ToldRun(RunEvent began, RunEvent ended, const char* directory)
        : ended_(ended), directory_(directory != nullptr ? directory : "")
    {
        tellRun({began, directory_});
    }

    ~ToldRun() { tellRun({ended_, directory_, result_}); }
    ToldRun(const ToldRun&) = delete;
    ToldRun& operator=(const ToldRun&) = delete;

    /// @return result
    int endWith(int result) { return result_ = result; }

private:
    const RunEvent ended_;
    const char* const directory_;
    int result_ = -1;
};

}  // namespace quillon
