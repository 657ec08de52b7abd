#include "tools/quillonctl/modules/module-events.h"

#include <algorithm>
#include <utility>

#include "tools/quillonctl/modules/foreign-end.h"
#include "tools/quillonctl/modules/interruption.h"

namespace quillon {

namespace {

bool isLetterOrDigit(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

std::string defectOfIdentifier(const std::string& identifier)
{
    return std::all_of(identifier.begin(), identifier.end(), isLetterOrDigit)
               ? "its package identifier does not contain \"emp\": " + identifier
               : "its package identifier has other characters than ASCII letters and digits: " +
                     identifier;
}

}  // namespace

ModuleEvents& ModuleEvents::instance()
{
    static auto* events = [] {
        auto* made = new ModuleEvents;
        moduleObserver = made;
        return made;
    }();
    return *events;
}

void ModuleEvents::hear(const ModuleNews& news)
{
    if (news.event == ModuleEvent::kStarted) {
        bearStackOverflow();  // on the thread that updates
        updateStarted();
    }
    const ModuleFinding finding{news.result, news.reason, news.detail};
    const std::lock_guard<std::mutex> lock(mutex_);
    ModuleHistory& module = modules_[news.libName];
    switch (news.event) {
        case ModuleEvent::kLoading:
            break;
        case ModuleEvent::kLoaded:
            module.loading = finding;
            module.locksLoader = !loadingRaised_.empty();
            if (module.locksLoader) {
                module.loading.detail = std::exchange(loadingRaised_, {});
            }
            break;
        case ModuleEvent::kChecking:
            module.check = {};
            break;
        case ModuleEvent::kDecided:
            module.check = finding;
            break;
        case ModuleEvent::kStarted:
            // The guard may have stopped waiting before.
            module.run =
                ModuleRun{std::chrono::steady_clock::now(), std::nullopt, module.isUpdating()};
            break;
        case ModuleEvent::kEnded:
            module.run->end = finding;
            updateEnded();
            hasEnded_.notify_all();
            break;
        case ModuleEvent::kLate:
            // The guard may have missed the end of an update that was over at once. One that has
            // not been heard of is still to start.
            if (!module.run) {
                module.run = ModuleRun{std::chrono::steady_clock::now(), std::nullopt, true};
            }
            module.run->isLate = !module.run->end;
            break;
    }
}

void ModuleEvents::loadingRaised(const std::string& what)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    loadingRaised_ = what;
}

ModuleHistory ModuleEvents::of(const std::string& libName) const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return find(libName);
}

/// With the mutex locked.
ModuleHistory ModuleEvents::find(const std::string& libName) const
{
    const auto found = modules_.find(libName);
    return found != modules_.end() ? found->second : ModuleHistory();
}

void ModuleEvents::awaitEnd(const std::string& libName,
                            std::chrono::steady_clock::time_point end) const
{
    std::unique_lock<std::mutex> lock(mutex_);
    hasEnded_.wait_until(lock, end, [&] { return !find(libName).isUpdating(); });
}

std::string phraseOf(const ModuleFinding& finding)
{
    static const std::map<ModuleReason, const char*> kPhrases = {
        {ModuleReason::kNoName, "its file has no name"},
        {ModuleReason::kNoLibrary, "its file is gone"},
        {ModuleReason::kNoIdentifier, "its package identifier is empty"},
        {ModuleReason::kNoPackage, "no package"},
        {ModuleReason::kNotMounted, "its package cannot be mounted"},
        {ModuleReason::kNoImage, "its image is missing"},
        {ModuleReason::kNoInformation, "its information file is missing"},
        {ModuleReason::kBadInformation, "its information file cannot be read"},
        {ModuleReason::kBadChecksum, "its image does not match its checksum"},
        {ModuleReason::kContextRefused, "its plug-in refused to be asked"},
        {ModuleReason::kCheckFailed, "its plug-in could not check the version"},
    };
    switch (finding.reason) {
        case ModuleReason::kNotLoadable:
            return "it does not load: " + finding.detail;
        case ModuleReason::kNoEntry:
            return "it has no entry " + finding.detail;
        case ModuleReason::kBadIdentifier:
            return defectOfIdentifier(finding.detail);
        case ModuleReason::kUpdateFailed:
            return finding.result == -1
                       ? "its plug-in could not update it"
                       : "the module's own code is " + std::to_string(finding.result);
        case ModuleReason::kException:
            return finding.detail.empty() ? "an exception was raised"
                                          : "an exception was raised: " + finding.detail;
        default: {
            const auto phrase = kPhrases.find(finding.reason);
            return phrase != kPhrases.end() ? phrase->second : "the log says why";
        }
    }
}

}  // namespace quillon
