/// Follows updates while the registry makes them.
#ifndef QUILLON_QUILLONCTL_UPDATE_WATCH_H
#define QUILLON_QUILLONCTL_UPDATE_WATCH_H

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "tools/quillonctl/modules/module-report.h"
#include "tools/quillonctl/modules/update-workers.h"

namespace quillon {

/// Looks, on a thread of its own, which module's update is running, and shows how far it is: by
/// what the plug-in says, else by the time it has taken; and whom it has to wait for. The registry
/// does not tell what became of a module that overran its time, so this one keeps the time as well.
class UpdateWatch
{
public:
    /// @param modules  those whose update may run, in the registry's order; they and the report
    ///                 must outlive this object
    UpdateWatch(const std::vector<const FWUpdateSymbol*>& modules, ModuleReport& report,
                std::chrono::milliseconds interval);
    ~UpdateWatch();
    UpdateWatch(const UpdateWatch&) = delete;
    UpdateWatch& operator=(const UpdateWatch&) = delete;

    /// To be called when the registry has returned: ends the watching, and gives updates that have
    /// overrun their time as long again, five seconds at least.
    void finish();

    /// After finish(): whether the module was seen to overrun its time.
    bool wasLate(const FWUpdateSymbol& module) const;
    /// After finish(), for one module: whether the registry has waited to the end of its time for
    /// an update that was over before. An update that is over at once may escape the registry,
    /// which then takes it for late.
    bool hasEscaped(const FWUpdateSymbol& module) const;
    /// After finish(): whether its update is still running.
    bool isStillRunning(const FWUpdateSymbol& module) const;
    /// After finish(): whether any update is still running.
    bool isAnyStillRunning() const;

private:
    using Clock = std::chrono::steady_clock;

    struct Watched
    {
        const FWUpdateSymbol* module = nullptr;
        std::optional<UpdateWorker> worker;  ///< none until its update has begun
        bool late = false;
        bool running = false;
    };

    void loop();
    void look();
    void assignNewWorkers();
    void show(const Watched& watched);
    void waitForLate();
    bool waitUntilNoneRuns(Clock::duration limit);
    const Watched* find(const FWUpdateSymbol& module) const;

    ModuleReport& m_report;
    const std::chrono::milliseconds m_interval;
    std::vector<Watched> m_modules;
    const Watched* m_shown = nullptr;
    const Clock::time_point m_began = Clock::now();
    Clock::duration m_lasted{};
    std::size_t m_workersSeen = updateWorkers().size();

    std::mutex m_mutex;
    std::condition_variable m_stop;
    bool m_stopped = false;
    std::thread m_thread;
};

}  // namespace quillon

#endif
