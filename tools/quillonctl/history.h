/// What the service and control layers have kept of their updates, see src/support/run-history.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/quillonctl/exit-codes.h"
#include "tools/quillonctl/output.h"
#include "tools/quillonctl/recorded-run.h"

namespace quillon {

/// What control layers keep of the latest of their updates.
constexpr std::size_t kMostLayerHistories = 200;
constexpr std::size_t kMostLayerBytes = 2U << 20U;

enum class PastOutcome {
    kUpdated,
    kFailed,
    kTimedOut,     ///< its end is not known: nobody waited for it any more
    kCutOff,       ///< the service was ended in it, or the device
    kNotRecorded,  ///< the service went on, but could not write the history
    kRunning
};

/// One module's part in one update.
struct PastUpdate
{
    std::int64_t at = 0;    ///< when it began, in seconds since 1970
    std::string directory;  ///< the stick's, with "/" at its end; of a control layer, the source
    bool isOfLayer = false;
    RecordedModule module;  ///< without a name where a run was cut off between two modules
    PastOutcome outcome = PastOutcome::kCutOff;
};

struct HistoryRequest
{
    std::string since;                ///< as for momentOf(); empty: from the beginning on
    std::optional<std::string> plot;  ///< the file to plot to
};

/// When something was, as people write it: "2026-11-23" or "2026-11-23 04:10" in local time, or so
/// many days or hours before now: "30d", "12h".
/// @return in seconds since 1970; nothing for any other text
std::optional<std::int64_t> momentOf(const std::string& text, std::int64_t now);

/// A time in local time as "2026-11-23 04:10"; "-" where the calendar does not reach.
std::string localTime(std::int64_t at);

/// For people: "updated", "failed: its image is missing". Printable.
std::string resultOf(const PastUpdate& update);

/// @param[out] leftOut  how many control layers' histories cannot be read
/// @return all that is kept, oldest first; nothing where no history was ever kept. Lines that are
///         none of the service's are passed over. Throws Failure.
std::optional<std::vector<PastUpdate>> readHistory(int& leftOut);

/// The verb. Needs no service. Throws Failure.
ExitCode showHistory(Output& output, const HistoryRequest& request);

}  // namespace quillon
