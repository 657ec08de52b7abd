#include "json-report.h"

#include <json/writer.h>

#include <iostream>

namespace quillon {

namespace {

Json::Value event(const char* name)
{
    Json::Value object(Json::objectValue);
    object["event"] = name;
    return object;
}

void write(const Json::Value& object)
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    std::cout << Json::writeString(builder, object) << std::endl;
}

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

Json::Value stateEvent(const char* name, const Progress& progress)
{
    Json::Value object = event(name);
    object["state"] = stateName(progress.state);
    object["percent"] = progress.percent;
    return object;
}

}  // namespace

void JsonReport::earlierOutcome(const Progress& outcome)
{
    write(stateEvent("earlier-update", outcome));
}

void JsonReport::checking(const std::string& directory)
{
    Json::Value object = event("checking");
    object["directory"] = directory;
    write(object);
}

void JsonReport::estimated(const Estimate& estimate)
{
    Json::Value object = event("estimate");
    object["updateNeeded"] = estimate.updateNeeded;
    object["seconds"] = estimate.seconds;
    write(object);
}

void JsonReport::started()
{
    write(event("started"));
}

void JsonReport::progressed(int percent, int secondsLeft)
{
    if (percent == m_lastPercent) {
        return;
    }
    m_lastPercent = percent;
    Json::Value object = event("progress");
    object["percent"] = percent;
    object["secondsLeft"] = secondsLeft;
    write(object);
}

void JsonReport::finished(int seconds)
{
    Json::Value object = event("finished");
    object["seconds"] = seconds;
    write(object);
}

void JsonReport::state(const Progress& progress)
{
    write(stateEvent("state", progress));
}

void JsonReport::stopped()
{
    write(event("stop-sent"));
}

void JsonReport::error(ExitCode code, const std::string& text)
{
    Json::Value object = event("error");
    object["exitCode"] = code;
    object["text"] = text;
    write(object);
}

}  // namespace quillon
