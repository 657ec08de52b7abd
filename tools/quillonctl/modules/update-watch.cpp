#include "tools/quillonctl/modules/update-watch.h"

#include <algorithm>
#include <cstdint>

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

/// Seconds without a sign, which the registry keeps in an int.
std::uint32_t expectedSeconds(const FWUpdateSymbol& module)
{
    return static_cast<std::uint32_t>(module.getExpectedUpdateTime());
}

seconds expectedTime(const FWUpdateSymbol& module)
{
    return seconds(expectedSeconds(module));
}

/// When the registry's guard gives up. Its sum has 32 bits: the longest times wrap to a short one.
seconds allowedTime(const FWUpdateSymbol& module)
{
    return seconds(static_cast<std::uint32_t>(expectedSeconds(module) + kGraceSeconds));
}

}  // namespace

UpdateWatch::UpdateWatch(const std::vector<const FWUpdateSymbol*>& modules, ModuleReport& report,
                         milliseconds interval)
    : modules_(modules), report_(report), interval_(interval)
{
    UpdateSlot::instance().explainTo([this](const SlotHolders& holders) {
        const std::lock_guard<std::mutex> lock(mutex_);
        report_.waitingForOthers(holders);
    });
    const SignalsBlocked blocked;
    thread_ = std::thread([this] { loop(); });
}

UpdateWatch::~UpdateWatch()
{
    if (thread_.joinable()) {
        finish();
    }
}

void UpdateWatch::loop()
{
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stop_.wait_for(lock, interval_, [this] { return stopped_; })) {
        // Updates run in the registry's order, so the last one that runs is the one to be shown;
        // those before it have overrun their time.
        for (auto module = modules_.rbegin(); module != modules_.rend(); ++module) {
            const auto run = ModuleEvents::instance().run((*module)->getLibName());
            if (run && !run->end) {
                show(**module, *run);
                break;
            }
        }
    }
}

void UpdateWatch::show(const FWUpdateSymbol& module, const ModuleRun& run)
{
    if (shown_ != &module) {
        shown_ = &module;
        report_.updating(module.getLibName());
    }
    const auto passed = std::chrono::duration_cast<seconds>(Clock::now() - run.began);
    const seconds expected = expectedTime(module);
    unsigned int percent = 0;
    int result = -1;
    static_cast<void>(raisedBy([&] {
        result = FWUpdateSymbolManager::getInstance()->getFirmwareUpdateProgress(
            module.getLibName(), &percent);
    }));
    if (result != 0) {
        percent = expected > seconds::zero()
                      ? static_cast<unsigned int>(passed.count() * 100 / expected.count())
                      : 99U;
        percent = std::min(percent, 99U);  // done is what the registry says is done
    }
    report_.progressed(
        static_cast<int>(std::min(percent, 100U)),
        static_cast<int>(std::clamp(expected - passed, seconds::zero(), kLongestTimeLeft).count()));
}

void UpdateWatch::finish()
{
    UpdateSlot::instance().explainTo({});
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        stopped_ = true;
    }
    stop_.notify_one();
    thread_.join();
    waitForLate();
    if (!isAnyStillRunning()) {
        endUpdating();
    }
}

void UpdateWatch::waitForLate()
{
    seconds limit = kShortestSecondChance;
    for (const FWUpdateSymbol* module : modules_) {
        if (isStillRunning(*module)) {
            limit = std::max(limit, std::min(expectedTime(*module), allowedTime(*module)));
            report_.waitingForLate(module->getLibName());
        }
    }
    const Clock::time_point end = Clock::now() + limit;
    for (const FWUpdateSymbol* module : modules_) {
        ModuleEvents::instance().awaitEnd(module->getLibName(), end);
    }
}

bool UpdateWatch::isStillRunning(const FWUpdateSymbol& module) const
{
    const auto run = ModuleEvents::instance().run(module.getLibName());
    return run && !run->end;
}

bool UpdateWatch::isAnyStillRunning() const
{
    return std::any_of(modules_.begin(), modules_.end(),
                       [this](const FWUpdateSymbol* module) { return isStillRunning(*module); });
}

}  // namespace quillon
