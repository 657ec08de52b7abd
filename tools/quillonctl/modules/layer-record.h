/// What a control layer records of its updates, so that other programs can follow them and list
/// them later.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "src/support/run-record.h"

namespace quillon {

/// Keeps the service's kind of records, see RunRecord, in a directory of this process's own below
/// paths::kLayerRecords. It is left there at the end, for those who are still reading; a later
/// object takes it away.
///
/// Keeps a history, see RunHistory, in a directory "AT-PID" of this process's own below
/// paths::kLayerHistory, if there is a history of the service's: no other process writes there. AT
/// is when it began, in seconds since 1970. A later object takes away the oldest ones beyond 200
/// updates or 2 MiB, and those in which nothing was kept.
///
/// Nothing is kept unless the service's records are, and this user is root or their owner. Root
/// writes as their owner and group: no link of theirs leads root to a file that they cannot write.
///
/// An update that cannot be recorded is not held up. Thread: one at a time.
class LayerRecord
{
public:
    LayerRecord();

    void hear(const ModuleNews& news);
    void hearRun(const RunNews& news);
    /// As ModuleObserver's: an event was lost, so the record is given up.
    /// @{
    void miss(ModuleEvent event) noexcept;
    void missRun(RunEvent event) noexcept;
    /// @}

private:
    template <typename Work>
    bool asOwner(Work work);

    std::string directory_;
    uid_t owner_ = 0;
    gid_t group_ = 0;
    std::optional<RunRecord> record_;
};

}  // namespace quillon
