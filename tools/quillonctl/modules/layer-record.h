/// What a control layer records of its updates, so that other programs can follow them.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "src/support/run-record.h"

namespace quillon {

/// Keeps the service's kind of records, see RunRecord, in a directory of this process's own below
/// paths::kLayerRecords. It is left there at the end, for those who are still reading; a later
/// object takes it away. Nothing is added to the history of updates.
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
