#include "tools/quillonctl/modules/module-events.h"

#include <utility>

#include "tools/quillonctl/modules/foreign-end.h"
#include "tools/quillonctl/modules/interruption.h"

namespace quillon {

ModuleEvents& ModuleEvents::instance()
{
    static auto* events = [] {
        auto* made = new ModuleEvents;
        moduleObserver = made;
        return made;
    }();
    return *events;
}

/// Records it first: once the end of the last update is known here, the program may end.
void ModuleEvents::hear(const ModuleNews& news)
{
    if (record_) {
        const std::lock_guard<std::mutex> lock(recording_);
        record_->hear(news);
    }
    note(news);
}

void ModuleEvents::hearRun(const RunNews& news)
{
    if (record_) {
        const std::lock_guard<std::mutex> lock(recording_);
        record_->hearRun(news);
    }
}

void ModuleEvents::miss(ModuleEvent event) noexcept
{
    if (record_) {
        const std::lock_guard<std::mutex> lock(recording_);
        record_->miss(event);
    }
}

void ModuleEvents::missRun(RunEvent event) noexcept
{
    if (record_) {
        const std::lock_guard<std::mutex> lock(recording_);
        record_->missRun(event);
    }
}

void ModuleEvents::note(const ModuleNews& news)
{
    if (news.event == ModuleEvent::kStarted) {
        bearStackOverflow();  // on the thread that updates
        updateStarted();
    }
    if (news.event == ModuleEvent::kLoading || news.event == ModuleEvent::kChecking) {
        isAt(news.libName,
             news.event == ModuleEvent::kLoading ? ModuleStep::kLoading : ModuleStep::kChecking);
    } else if (news.event == ModuleEvent::kLoaded || news.event == ModuleEvent::kDecided) {
        isAt("", ModuleStep::kNone);
    }
    const ModuleFinding finding{news.result, news.reason, news.detail};
    std::unique_lock<std::mutex> lock(mutex_);
    ModuleHistory& module = modules_[news.libName];
    switch (news.event) {
        case ModuleEvent::kLoading:
            loading_ = news.libName;
            break;
        case ModuleEvent::kLoaded:
            loading_.clear();
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
        case ModuleEvent::kFlashing:
            hasEnded_.wait(lock, [&module] { return !module.run || !module.run->isGivenUp; });
            if (module.run) {
                module.run->isFlashing = true;
            }
            break;
        case ModuleEvent::kEnded:
            if (!module.run) {
                module.run.emplace();  // there was no memory to hear of its start
            }
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

bool ModuleEvents::giveUp(const std::string& libName)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    std::optional<ModuleRun>& run = modules_[libName].run;
    if (!run || run->end || run->isFlashing) {
        return false;
    }
    run->isGivenUp = true;
    return true;
}

void ModuleEvents::isAt(const std::string& libName, ModuleStep step) const
{
    if (onStep_) {
        onStep_(libName, step);
    }
}

void ModuleEvents::loadingRaised(const std::string& what)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    loadingRaised_ = what;
}

bool ModuleEvents::mayLoad(const char* file)
{
    if (loading_.empty()) {
        return true;
    }
    auto* loaded = new LoadedFile{file, loading_, files_};
    while (!files_.compare_exchange_weak(loaded->next, loaded)) {
        // Another thread has added a file: this one comes before it.
    }
    return leftOut_.count(loading_) == 0;
}

const char* ModuleEvents::moduleOf(const char* file) const
{
    const LoadedFile* loaded = files_;
    while (loaded != nullptr && loaded->path != file) {
        loaded = loaded->next;
    }
    return loaded != nullptr ? loaded->module.c_str() : nullptr;
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

}  // namespace quillon
