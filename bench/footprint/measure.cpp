#include "footprint/measure.h"

#include <algorithm>
#include <map>
#include <stdexcept>
#include <thread>

#include "process/device.h"
#include "process/memory.h"
#include "process/ready-socket.h"
#include "process/started-process.h"
#include "process/statistics.h"

namespace quillon::bench {
namespace {

constexpr const char* kModules = "/usr/fwupdate/controls";

/// Starts are timed in so many passes over all module counts, so that a slow minute of the machine
/// does not meet one count alone.
constexpr int kPasses = 10;

struct Subject
{
    std::string name;
    std::vector<std::string> command;
};

std::vector<Subject> subjectsOf(const Plan& plan)
{
    const std::string floor = plan.buildFolder + "/bench/do-nothing";
    return {{kService, {plan.buildFolder + "/bin/quillon-service"}},
            {kFloor, {floor}},
            {kModulesFloor, {floor, kModules}}};
}

std::string tinyModuleOf(const Plan& plan)
{
    return plan.buildFolder + "/bench/tiny-module.so";
}

Json::Value toJson(const Spread& spread)
{
    Json::Value value;
    value["median"] = spread.median;
    value["least"] = spread.least;
    value["p95"] = spread.p95;
    value["runs"] = Json::Value::UInt64{spread.runs};
    return value;
}

Json::Value element(int modules, const std::string& process)
{
    Json::Value value;
    value["modules"] = modules;
    value["process"] = process;
    return value;
}

/// The milliseconds that each process took, by its name.
using Times = std::map<std::string, std::vector<double>>;

double timeToReady(const Subject& subject, ReadySocket& socket)
{
    forgetEarlierService();
    StartedProcess process(subject.command, socket);
    return process.waitUntilReady().count();
}

void timeRounds(int rounds, std::vector<Subject>& subjects, ReadySocket& socket, Times& times)
{
    for (const Subject& subject : subjects) {
        timeToReady(subject, socket);  // what is read for the first time is in memory afterwards
    }
    for (int round = 0; round < rounds; ++round) {
        for (const Subject& subject : subjects) {
            times[subject.name].push_back(timeToReady(subject, socket));
        }
        std::reverse(subjects.begin(), subjects.end());
    }
}

Json::Value timeStarts(const Plan& plan, ReadySocket& socket)
{
    std::map<int, Times> times;
    std::vector<Subject> subjects = subjectsOf(plan);
    std::vector<int> counts = plan.moduleCounts;
    for (int pass = 0; pass < kPasses; ++pass) {
        const int rounds = plan.runs * (pass + 1) / kPasses - plan.runs * pass / kPasses;
        for (const int count : counts) {
            if (rounds > 0) {
                installModules(tinyModuleOf(plan), count);
                timeRounds(rounds, subjects, socket, times[count]);
            }
        }
        std::reverse(counts.begin(), counts.end());
    }

    Json::Value results(Json::arrayValue);
    for (const int count : plan.moduleCounts) {
        for (const Subject& subject : subjectsOf(plan)) {
            Json::Value result = element(count, subject.name);
            result["time"] = toJson(spreadOf(times[count][subject.name]));
            results.append(result);
        }
    }
    return results;
}

Memory settledMemory(const Subject& subject, std::chrono::milliseconds settle, ReadySocket& socket)
{
    forgetEarlierService();
    StartedProcess process(subject.command, socket);
    process.waitUntilReady();
    std::this_thread::sleep_for(settle);
    return memoryOf(process.pid());
}

Json::Value spreadOfField(const std::vector<Memory>& samples, long Memory::*field)
{
    std::vector<double> values(samples.size());
    std::transform(samples.begin(), samples.end(), values.begin(),
                   [field](const Memory& sample) { return static_cast<double>(sample.*field); });
    return toJson(spreadOf(values));
}

Json::Value readMemory(const Plan& plan, ReadySocket& socket)
{
    installModules(tinyModuleOf(plan), plan.memoryModules);
    std::vector<Subject> subjects = subjectsOf(plan);
    std::map<std::string, std::vector<Memory>> samples;
    for (int round = 0; round < plan.memoryRuns; ++round) {
        for (const Subject& subject : subjects) {
            samples[subject.name].push_back(settledMemory(subject, plan.settle, socket));
        }
        std::reverse(subjects.begin(), subjects.end());
    }

    Json::Value results(Json::arrayValue);
    for (const Subject& subject : subjectsOf(plan)) {
        const std::vector<Memory>& seen = samples[subject.name];
        Json::Value result = element(plan.memoryModules, subject.name);
        result["resident"] = spreadOfField(seen, &Memory::resident);
        result["proportional"] = spreadOfField(seen, &Memory::proportional);
        result["unshared"] = spreadOfField(seen, &Memory::unshared);
        result["anonymous"] = spreadOfField(seen, &Memory::anonymous);
        results.append(result);
    }
    return results;
}

}  // namespace

Json::Value measureInDevice(const Plan& plan)
{
    if (plan.runs < 1 || plan.memoryRuns < 1) {
        throw std::runtime_error("at least one run of each kind");
    }
    bootDevice();
    ReadySocket socket;
    Json::Value results;
    results["start"] = timeStarts(plan, socket);
    results["memory"] = readMemory(plan, socket);
    results["settle"] = Json::Value::Int64{plan.settle.count()};
    return results;
}

}  // namespace quillon::bench
