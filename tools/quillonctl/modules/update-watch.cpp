#include "tools/quillonctl/modules/update-watch.h"

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <system_error>
#include <thread>

#include "base/signals-blocked.h"
#include "tools/quillonctl/modules/interruption.h"
#include "tools/quillonctl/modules/update-slot.h"

namespace quillon {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

/// What the registry's guard adds to the expected time.
constexpr std::uint32_t kGraceSeconds = 2;
constexpr seconds kShortestSecondChance(5);
/// More is not worth telling apart.
constexpr seconds kLongestTimeLeft(1'000'000'000);

/// The registry keeps it in an int, but has no sign for it.
seconds expectedTime(const FWUpdateSymbol& module)
{
    return seconds(static_cast<std::uint32_t>(module.getExpectedUpdateTime()));
}

/// When the registry's guard gives up. Its sum has 32 bits: the longest times wrap to a short one.
seconds allowedTime(const FWUpdateSymbol& module)
{
    return seconds(static_cast<std::uint32_t>(expectedTime(module).count() + kGraceSeconds));
}

bool isStillRunning(const FWUpdateSymbol* module)
{
    return ModuleEvents::instance().of(module->getLibName()).isUpdating();
}

}  // namespace

/// What the watching thread uses, which may outlive its watch.
struct UpdateWatch::Watching
{
    const std::vector<const FWUpdateSymbol*> modules;
    ModuleReport& report;
    const milliseconds interval;
    const FWUpdateSymbol* shown = nullptr;

    std::mutex mutex;
    std::condition_variable changed;
    bool isStopped = false;  ///< from then on neither the modules nor the report are touched
    bool hasEnded = false;

    Watching(const std::vector<const FWUpdateSymbol*>& watched, ModuleReport& to,
             milliseconds every)
        : modules(watched), report(to), interval(every)
    {
    }
    void loop();
    void show(const FWUpdateSymbol& module, const ModuleRun& run,
              std::unique_lock<std::mutex>& lock);
};

UpdateWatch::UpdateWatch(const std::vector<const FWUpdateSymbol*>& modules, ModuleReport& report,
                         milliseconds interval)
    : watching_(std::make_shared<Watching>(modules, report, interval))
{
    UpdateSlot::instance().explainTo([watching = watching_](const SlotHolders& holders) {
        const std::lock_guard<std::mutex> lock(watching->mutex);
        watching->report.waitingForOthers(holders);
    });
    const SignalsBlocked blocked;
    try {
        std::thread([watching = watching_] { watching->loop(); }).detach();
    } catch (const std::system_error&) {
        watching_->hasEnded = true;  // nothing is shown then
    }
}

UpdateWatch::~UpdateWatch()
{
    if (!watching_->isStopped) {
        static_cast<void>(finish());
    }
}

void UpdateWatch::Watching::loop()
{
    std::unique_lock<std::mutex> lock(mutex);
    while (!changed.wait_for(lock, interval, [this] { return isStopped; })) {
        // Updates run in the registry's order, so the last one that runs is the one to be shown;
        // those before it have overrun their time.
        for (auto module = modules.rbegin(); module != modules.rend(); ++module) {
            const ModuleHistory history = ModuleEvents::instance().of((*module)->getLibName());
            if (history.isUpdating()) {
                show(**module, *history.run, lock);
                break;
            }
        }
    }
    hasEnded = true;
    changed.notify_all();
}

/// The plug-in is asked without the lock, since it may not answer.
void UpdateWatch::Watching::show(const FWUpdateSymbol& module, const ModuleRun& run,
                                 std::unique_lock<std::mutex>& lock)
{
    if (!ModuleReport::isRead()) {
        return;  // the module's name is shown once somebody reads
    }
    if (shown != &module) {
        shown = &module;
        report.updating(module.getLibName());
    }
    const auto passed = std::chrono::duration_cast<seconds>(Clock::now() - run.began);
    const seconds expected = expectedTime(module);
    const std::string name = module.getLibName();
    lock.unlock();
    std::optional<unsigned int> percent = updateProgress(name);
    lock.lock();
    if (isStopped) {
        return;
    }
    if (!percent) {
        percent = expected > seconds::zero()
                      ? static_cast<unsigned int>(passed.count() * 100 / expected.count())
                      : 99U;
        percent = std::min(*percent, 99U);  // done is what the registry says is done
    }
    report.progressed(
        static_cast<int>(std::min(*percent, 100U)),
        static_cast<int>(std::clamp(expected - passed, seconds::zero(), kLongestTimeLeft).count()));
}

bool UpdateWatch::finish()
{
    UpdateSlot::instance().explainTo({});
    {
        const std::lock_guard<std::mutex> lock(watching_->mutex);
        watching_->isStopped = true;
    }
    watching_->changed.notify_all();
    waitForLate();
    std::unique_lock<std::mutex> lock(watching_->mutex);
    return !watching_->changed.wait_for(lock, kShortestSecondChance,
                                        [this] { return watching_->hasEnded; });
}

void UpdateWatch::waitForLate()
{
    seconds limit = kShortestSecondChance;
    for (const FWUpdateSymbol* module : watching_->modules) {
        if (isStillRunning(module)) {
            limit = std::max(limit, std::min(expectedTime(*module), allowedTime(*module)));
            watching_->report.waitingForLate(module->getLibName());
        }
    }
    const Clock::time_point end = Clock::now() + limit;
    for (const FWUpdateSymbol* module : watching_->modules) {
        ModuleEvents::instance().awaitEnd(module->getLibName(), end);
    }
}

bool UpdateWatch::isAnyStillRunning() const
{
    return std::any_of(watching_->modules.begin(), watching_->modules.end(), isStillRunning);
}

}  // namespace quillon
