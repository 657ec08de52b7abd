#include "src/support/module-reason.h"
#include "tools/quillonctl/json-line.h"
#include "tools/quillonctl/report.h"

namespace quillon {

namespace {

const char* nameOf(Progress::State state)
{
    static const std::map<Progress::State, const char*> kNames = {
        {Progress::kIdle, "idle"},
        {Progress::kRunning, "running"},
        {Progress::kDone, "done"},
        {Progress::kFailed, "failed"},
    };
    return kNames.at(state);
}

const char* nameOf(Marks marks)
{
    static const std::map<Marks, const char*> kNames = {
        {Marks::kRenewed, "renewed"},
        {Marks::kStillNeeded, "still-needed"},
        {Marks::kStickGone, "stick-gone"},
        {Marks::kUnknown, "unknown"},
    };
    return kNames.at(marks);
}

void writeStateEvent(const char* event, const Progress& progress)
{
    writeEvent(event, {{"state", nameOf(progress.state)}, {"percent", progress.percent}});
}

/// @param good  the result of a module that is not refused
void writeModulesEvent(const char* event, const std::vector<RecordedModule>& modules, int good)
{
    Json::Value rows(Json::arrayValue);
    for (const RecordedModule& module : modules) {
        Json::Value row = jsonObject(
            {{"name", module.name},
             {"offered", module.offered.empty() ? Json::Value() : Json::Value(module.offered)}});
        if (module.finding) {
            const bool isRefused = module.finding->result != good;
            row["result"] = module.finding->result;
            row["expectedSeconds"] = module.expectedSeconds;
            row["seconds"] = module.seconds;
            if (isRefused) {
                row["reason"] = codeOf(module.finding->reason);
                row["text"] = phraseOf(*module.finding);
            }
        }
        rows.append(row);
    }
    writeEvent(event, {{"modules", rows}});
}

class JsonReport final : public Report
{
public:
    void earlierOutcome(const Progress& outcome) override
    {
        writeStateEvent("earlier-update", outcome);
    }

    void checking(const std::string& directory) override
    {
        writeEvent("checking", {{"directory", directory}});
    }

    void estimated(const Estimate& estimate, bool /*isExplained*/) override
    {
        writeEvent("estimate",
                   {{"updateNeeded", estimate.updateNeeded}, {"seconds", estimate.seconds}});
    }

    void looked(const std::vector<RecordedModule>& modules) override
    {
        writeModulesEvent("looked", modules, 1);
    }

    void started() override { writeEvent("started"); }

    void updating(const std::string& module) override
    {
        writeEvent("updating", {{"module", module}});
    }

    void progressed(int percent, int secondsLeft) override
    {
        if (percent != lastPercent_) {
            lastPercent_ = percent;
            writeEvent("progress", {{"percent", percent}, {"secondsLeft", secondsLeft}});
        }
    }

    void finished(int seconds) override { writeEvent("finished", {{"seconds", seconds}}); }

    void updated(const std::vector<RecordedModule>& modules) override
    {
        writeModulesEvent("updated", modules, 0);
    }

    void lookingAgain() override { writeEvent("looking-again"); }

    void lookedAgain(Marks marks, const std::string& advice) override
    {
        writeEvent("looked-again",
                   {{"marks", nameOf(marks)}, {"text", advice.empty() ? Json::Value() : advice}});
    }

    void state(const Progress& progress) override { writeStateEvent("state", progress); }

    void stopped() override { writeEvent("stop-sent"); }

    void error(ExitCode code, const std::string& text) override
    {
        writeEvent("error", {{"exitCode", code}, {"text", text}});
    }

private:
    int lastPercent_ = -1;
};

}  // namespace

std::unique_ptr<Report> makeJsonReport()
{
    return std::make_unique<JsonReport>();
}

}  // namespace quillon
