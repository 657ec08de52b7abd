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

    void estimated(const Estimate& estimate) override
    {
        writeEvent("estimate",
                   {{"updateNeeded", estimate.updateNeeded}, {"seconds", estimate.seconds}});
    }

    void started() override { writeEvent("started"); }

    void progressed(int percent, int secondsLeft) override
    {
        if (percent != lastPercent_) {
            lastPercent_ = percent;
            writeEvent("progress", {{"percent", percent}, {"secondsLeft", secondsLeft}});
        }
    }

    void finished(int seconds) override { writeEvent("finished", {{"seconds", seconds}}); }

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
