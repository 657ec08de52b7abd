#include "tools/quillonctl/json-report.h"

#include "tools/quillonctl/json-line.h"

namespace quillon {

namespace {

const char* stateName(Progress::State state)
{
    switch (state) {
        case Progress::kRunning:
            return "running";
        case Progress::kDone:
            return "done";
        case Progress::kFailed:
            return "failed";
        default:
            return "idle";
    }
}

const char* marksName(Marks marks)
{
    switch (marks) {
        case Marks::kRenewed:
            return "renewed";
        case Marks::kStillNeeded:
            return "still-needed";
        case Marks::kStickGone:
            return "stick-gone";
        default:
            return "unknown";
    }
}

Json::Value stateEvent(const char* name, const Progress& progress)
{
    Json::Value object = eventObject(name);
    object["state"] = stateName(progress.state);
    object["percent"] = progress.percent;
    return object;
}

}  // namespace

void JsonReport::earlierOutcome(const Progress& outcome)
{
    writeJsonLine(stateEvent("earlier-update", outcome));
}

void JsonReport::checking(const std::string& directory)
{
    Json::Value object = eventObject("checking");
    object["directory"] = directory;
    writeJsonLine(object);
}

void JsonReport::estimated(const Estimate& estimate)
{
    Json::Value object = eventObject("estimate");
    object["updateNeeded"] = estimate.updateNeeded;
    object["seconds"] = estimate.seconds;
    writeJsonLine(object);
}

void JsonReport::started()
{
    writeJsonLine(eventObject("started"));
}

void JsonReport::progressed(int percent, int secondsLeft)
{
    if (percent == lastPercent_) {
        return;
    }
    lastPercent_ = percent;
    Json::Value object = eventObject("progress");
    object["percent"] = percent;
    object["secondsLeft"] = secondsLeft;
    writeJsonLine(object);
}

void JsonReport::finished(int seconds)
{
    Json::Value object = eventObject("finished");
    object["seconds"] = seconds;
    writeJsonLine(object);
}

void JsonReport::lookingAgain()
{
    writeJsonLine(eventObject("looking-again"));
}

void JsonReport::lookedAgain(Marks marks, const std::string& advice)
{
    Json::Value object = eventObject("looked-again");
    object["marks"] = marksName(marks);
    if (!advice.empty()) {
        object["text"] = advice;
    }
    writeJsonLine(object);
}

void JsonReport::state(const Progress& progress)
{
    writeJsonLine(stateEvent("state", progress));
}

void JsonReport::stopped()
{
    writeJsonLine(eventObject("stop-sent"));
}

void JsonReport::error(ExitCode code, const std::string& text)
{
    Json::Value object = eventObject("error");
    object["exitCode"] = code;
    object["text"] = text;
    writeJsonLine(object);
}

}  // namespace quillon
