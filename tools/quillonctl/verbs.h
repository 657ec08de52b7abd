/// What quillonctl can do, one function a verb.
#pragma once

#include <quillon/client.h>

#include <chrono>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "tools/quillonctl/exit-codes.h"
#include "tools/quillonctl/follow.h"
#include "tools/quillonctl/module-answer.h"
#include "tools/quillonctl/output.h"
#include "tools/quillonctl/recorded-run.h"

namespace quillon {

struct Stick
{
    std::string directory;         ///< absolute; empty: unknown
    std::set<std::string> images;  ///< names; empty: unknown
};

/// Each verb connects the client, says everything through the output, and returns what the program
/// exits with. Throws Failure.
class Verbs
{
public:
    /// Client and output must outlive this object.
    /// @param ask  called while the client is connected
    Verbs(Client& client, Output& output, AskModules ask)
        : client_(client), output_(output), ask_(std::move(ask))
    {
    }

    /// Sets the directory, estimates, starts and follows the update to its end. Then it has the
    /// service look at the stick once more, which changes nothing about the result.
    /// @param pollInterval  how often the service is asked how far it has come
    ExitCode update(const std::string& directory, std::chrono::milliseconds pollInterval);
    /// Sets the directory and says which modules need an update, why others do not, what they run,
    /// and how long an update would take.
    ExitCode check(const std::string& directory);
    /// Says how far the update has come. When it has ended, looks at the stick once more.
    ExitCode progress();
    /// Follows the running update to its end by its records, see followUpdate(). Asks the service
    /// nothing.
    ExitCode progressToTheEnd(std::chrono::milliseconds pollInterval, const FindUpdater& updater);
    /// Asks the service to take no more commands.
    ExitCode stop();

private:
    template <typename Work>
    ExitCode namingModule(Work work);
    ModuleAnswers answers();
    /// @param[out] stick  as it is before the update
    /// @param[out] look   what the service has recorded of the estimate, if anything
    Estimate prepare(const std::string& directory, Stick& stick, std::optional<RecordedRun>& look);
    ExitCode run(const std::string& directory, std::chrono::milliseconds pollInterval);
    void makeSureNothingRuns();
    ExitCode follow(int expectedSeconds, std::chrono::milliseconds pollInterval);
    void lookAgain(const Stick& stick);
    /// To be called right before the service is asked.
    void recordsBegin(const char* record, const std::string& stick);
    std::optional<RecordedRun> recorded() const;
    std::optional<RecordedRun> unfinished() const;
    ExitCode askProgress();

    Client& client_;
    Output& output_;
    const AskModules ask_;
    ModuleAnswers before_;  ///< what the modules have said before the update
    // Which of the service's records is about what was asked here.
    const char* record_ = "estimate";
    std::string stick_;  ///< empty before anything was asked
    double since_ = 0;
};

}  // namespace quillon
