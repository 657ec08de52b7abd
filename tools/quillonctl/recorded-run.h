/// What the service has recorded of an estimate or an update, see src/support/run-record.h.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "src/support/run-record.h"
#include "tools/quillonctl/module-finding.h"

namespace quillon {

/// What became of a module.
struct RecordedModule
{
    std::string name;
    std::optional<ModuleFinding> finding;  ///< nothing as long as it is being worked on
    std::string offered;                   ///< version; empty when not known
    int expectedSeconds = 0;
    double began = 0;    ///< when the work on it began, in seconds since boot
    double seconds = 0;  ///< how long it was worked on, once there is a finding
};

struct RecordedRun
{
    double began = 0;                     ///< seconds since boot
    pid_t service = 0;                    ///< the process that has recorded it
    std::string directory;                ///< the stick's, with "/" at its end
    std::vector<RecordedModule> modules;  ///< in the order of the work
    std::optional<int> result;            ///< nothing as long as it is running, or when cut off
    double ended = 0;                     ///< once there is a result

    /// The module that is being worked on, or was when the service died; null for none.
    const RecordedModule* present() const;
};

/// @param name  "estimate" or "update"
/// @return nothing when there is no such record
std::optional<RecordedRun> readRecordedRun(const std::string& name);

/// @param name   as above
/// @param stick  the directory that the run must be from, without "/" at its end
/// @param since  the run must have begun then or later, by secondsSinceBoot()
/// @return nothing when there is no such record
std::optional<RecordedRun> readRecordedRun(const std::string& name, const std::string& stick,
                                           double since);

}  // namespace quillon
