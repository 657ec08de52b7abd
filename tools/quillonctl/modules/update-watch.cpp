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

/// What the registry's guard adds to the expected time.
constexpr std::uint32_t kGraceSeconds = 2;
constexpr seconds kShortestSecondChance(5);
/// A worker that has said that it is done needs a moment to end.
constexpr milliseconds kEndOfWorker(200);
constexpr milliseconds kPoll(20);
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
    : m_report(report), m_interval(interval)
{
    for (const FWUpdateSymbol* module : modules) {
        Watched watched;
        watched.module = module;
        m_modules.push_back(watched);
    }
    UpdateSlot::instance().explainTo([this](const SlotHolders& holders) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_report.waitingForOthers(holders);
    });
    const SignalsBlocked blocked;
    m_thread = std::thread([this] { loop(); });
}

UpdateWatch::~UpdateWatch()
{
    if (m_thread.joinable()) {
        finish();
    }
}

void UpdateWatch::loop()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_stop.wait_for(lock, m_interval, [this] { return m_stopped; })) {
        look();
        // Updates run in the registry's order, so the last one that runs is the one to be shown;
        // those before it have overrun their time.
        const auto current = std::find_if(m_modules.rbegin(), m_modules.rend(),
                                          [](const Watched& watched) { return watched.running; });
        if (current != m_modules.rend()) {
            show(*current);
        }
    }
}

void UpdateWatch::assignNewWorkers()
{
    const std::vector<UpdateWorker> workers = updateWorkers();
    for (; m_workersSeen < workers.size(); ++m_workersSeen) {
        const UpdateWorker& worker = workers[m_workersSeen];
        const auto found =
            std::find_if(m_modules.begin(), m_modules.end(), [&](const Watched& watched) {
                return !watched.worker && watched.module->getFirmwareName() == worker.firmwareName;
            });
        if (found != m_modules.end()) {
            found->worker = worker;
        }
    }
}

void UpdateWatch::look()
{
    assignNewWorkers();
    const Clock::time_point now = Clock::now();
    for (Watched& watched : m_modules) {
        watched.running = watched.worker && isAlive(*watched.worker);
        watched.late = watched.late || (watched.running &&
                                        now - watched.worker->began > allowedTime(*watched.module));
    }
}

void UpdateWatch::show(const Watched& watched)
{
    if (m_shown != &watched) {
        m_shown = &watched;
        m_report.updating(watched.module->getLibName());
    }
    const auto passed = std::chrono::duration_cast<seconds>(Clock::now() - watched.worker->began);
    const seconds expected = expectedTime(*watched.module);
    unsigned int percent = 0;
    int result = -1;
    static_cast<void>(raisedBy([&] {
        result = FWUpdateSymbolManager::getInstance()->getFirmwareUpdateProgress(
            watched.module->getLibName(), &percent);
    }));
    if (result != 0) {
        percent = expected > seconds::zero()
                      ? static_cast<unsigned int>(passed.count() * 100 / expected.count())
                      : 99U;
        percent = std::min(percent, 99U);  // done is what the registry says is done
    }
    m_report.progressed(
        static_cast<int>(std::min(percent, 100U)),
        static_cast<int>(std::clamp(expected - passed, seconds::zero(), kLongestTimeLeft).count()));
}

void UpdateWatch::finish()
{
    UpdateSlot& slot = UpdateSlot::instance();
    m_lasted = Clock::now() - std::max(m_began, slot.lastBegan());  // without the waiting
    slot.explainTo({});
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_stopped = true;
    }
    m_stop.notify_one();
    m_thread.join();
    waitForLate();
    if (!isAnyStillRunning()) {
        endUpdating();
    }
}

bool UpdateWatch::waitUntilNoneRuns(Clock::duration limit)
{
    const Clock::time_point end = Clock::now() + limit;
    while (true) {
        look();
        if (!isAnyStillRunning()) {
            return true;
        }
        if (Clock::now() >= end) {
            return false;
        }
        std::this_thread::sleep_for(kPoll);
    }
}

void UpdateWatch::waitForLate()
{
    if (waitUntilNoneRuns(kEndOfWorker)) {
        return;
    }
    seconds limit = kShortestSecondChance;
    for (Watched& watched : m_modules) {
        if (watched.running) {
            watched.late = true;
            limit = std::max(limit,
                             std::min(expectedTime(*watched.module), allowedTime(*watched.module)));
            m_report.waitingForLate(watched.module->getLibName());
        }
    }
    waitUntilNoneRuns(limit);
}

const UpdateWatch::Watched* UpdateWatch::find(const FWUpdateSymbol& module) const
{
    const auto found =
        std::find_if(m_modules.begin(), m_modules.end(),
                     [&](const Watched& watched) { return watched.module == &module; });
    return found == m_modules.end() ? nullptr : &*found;
}

bool UpdateWatch::wasLate(const FWUpdateSymbol& module) const
{
    const Watched* watched = find(module);
    return watched != nullptr && watched->late;
}

bool UpdateWatch::hasEscaped(const FWUpdateSymbol& module) const
{
    const Watched* watched = find(module);
    return watched != nullptr && !watched->late && m_lasted > allowedTime(module);
}

bool UpdateWatch::isStillRunning(const FWUpdateSymbol& module) const
{
    const Watched* watched = find(module);
    return watched != nullptr && watched->running;
}

bool UpdateWatch::isAnyStillRunning() const
{
    return std::any_of(m_modules.begin(), m_modules.end(),
                       [](const Watched& watched) { return watched.running; });
}

}  // namespace quillon
