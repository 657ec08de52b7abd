/// What the service has recorded of a start, an estimate or an update, see
/// src/support/run-record.h.
#pragma once

#include <json/value.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
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
    double began = 0;     ///< when the work on it began, in seconds since boot
    double seconds = 0;   ///< how long it was worked on, once there is a finding
    bool isLate = false;  ///< its time was over before there was one
};

struct RecordedRun
{
    double began = 0;                     ///< seconds since boot
    std::int64_t at = 0;                  ///< the time of day then, in seconds since 1970
    pid_t service = 0;                    ///< the process that has recorded it
    std::string directory;                ///< the stick's, with "/" at its end
    std::vector<RecordedModule> modules;  ///< in the order of the work
    std::optional<int> result;            ///< nothing as long as it is running, or when cut off
    double ended = 0;                     ///< once there is a result
    std::optional<bool> hasKey;           ///< of a start with a result: there is an image key

    /// The module that is being worked on, or was when the service died; null for none. One that is
    /// late only where there is no other.
    const RecordedModule* present() const;
};

/// Puts a run together from the lines of its record.
class RunLines
{
public:
    /// Throws std::exception for what the service does not write; the run may have changed then.
    void take(const Json::Value& line);

    RecordedRun run;

private:
    std::unordered_map<std::string, std::size_t> places_;  ///< of modules, in the run's
};

/// @return the JSON object in a line; null for anything else. Throws std::exception for an object
///         that is nested too deeply.
Json::Value objectIn(const std::string& line);

/// Whether the service that has recorded the run, since the last start of the device, is no more.
bool hasServiceEnded(const RecordedRun& run);

/// @param name  "start", "earlier-start", "estimate" or "update"
/// @return nothing when there is no such record
std::optional<RecordedRun> readRecordedRun(const std::string& name);

/// @param name   "estimate" or "update"
/// @param stick  the directory that the run must be from, without "/" at its end
/// @param since  the run must have begun then or later, by secondsSinceBoot()
/// @return nothing when there is no such record
std::optional<RecordedRun> readRecordedRun(const std::string& name, const std::string& stick,
                                           double since);

}  // namespace quillon
