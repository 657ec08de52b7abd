/// Follows updates while the registry makes them.
#pragma once

#include <chrono>
#include <memory>
#include <vector>

#include "tools/quillonctl/modules/module-events.h"
#include "tools/quillonctl/modules/module-report.h"

namespace quillon {

/// Shows, on a thread of its own, how far the module is that is being updated: by what its plug-in
/// says, else by the time it has taken; and whom an update has to wait for.
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
    /// overrun their time as long again, five seconds at least. A plug-in that does not tell its
    /// progress gets five seconds as well.
    /// @return whether a plug-in has kept the watching thread. The program must then end without
    ///         tearing anything down.
    bool finish();

    /// After finish(): whether any update is still running.
    bool isAnyStillRunning() const;

private:
    struct Watching;

    void waitForLate();

    const std::shared_ptr<Watching> watching_;
};

}  // namespace quillon
