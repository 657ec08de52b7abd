/// What quillonctl says of the service's records.
#pragma once

#include <optional>
#include <string>
#include <utility>

#include "tools/quillonctl/exit-codes.h"
#include "tools/quillonctl/module-answer.h"
#include "tools/quillonctl/next-commands.h"
#include "tools/quillonctl/output.h"
#include "tools/quillonctl/recorded-run.h"

namespace quillon {

/// @param look  what the service has recorded of an estimate that found nothing to do
/// @return kExitSuccess when it is known that each module that has an image is up to date
ExitCode nothingNeeded(const std::optional<RecordedRun>& look);

/// Says for each module what the estimate has found.
/// @param answers  of the modules
void sayLook(Output& output, const RecordedRun& look, const ModuleAnswers& answers);

/// Says how an update goes. The records have no modules where the service keeps none.
class UpdateReport
{
public:
    /// @param output  must outlive this object
    /// @param log     which log says more
    explicit UpdateReport(Output& output, std::string log = namedServiceLog())
        : output_(output), log_(std::move(log))
    {
    }

    /// To be called at every poll: says which module's update has begun, and how far it is.
    /// @param secondsLeft  0 when the update takes longer than expected
    void running(const RecordedRun& update, int percent, int secondsLeft);

    /// Says how each module has fared, and the update. Warns of a module that has succeeded and
    /// still runs its old version.
    /// @param end      what whoever has made the update tells of it, or exits with
    /// @param seconds  how long it took
    /// @param answers  of the modules; nothing where they were not asked
    /// @return kExitSuccess, also where there was nothing to update; kExitTimedOut;
    ///         kExitAlreadyUpdating when somebody else was updating; otherwise kExitUpdateFailed
    ExitCode ended(const RecordedRun& update, ExitCode end, int seconds,
                   std::optional<AnswersAround> answers = {});

private:
    Output& output_;
    const std::string log_;
    std::string module_;
    int percent_ = -1;
};

}  // namespace quillon
