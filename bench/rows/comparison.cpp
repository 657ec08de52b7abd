#include "rows/comparison.h"

#include <chrono>
#include <functional>
#include <set>
#include <thread>

#include "driven/placement.h"
#include "driven/service.h"
#include "driven/stick.h"
#include "process/device.h"
#include "process/memory.h"
#include "process/statistics.h"
#include "process/warm-memory.h"
#include "rows/kernel-runs.h"
#include "rows/round-trips.h"

namespace quillon::bench {
namespace {

constexpr std::uint64_t kMiB = 1U << 20U;
constexpr std::size_t kWarmBytes = 512U << 20U;
constexpr const char* kStick = "/opt/media/USBDriveA1/";

/// Something that is measured of a build.
struct Subject
{
    std::string work;
    std::string unit;
    std::function<double(const std::string& buildFolder)> measure;
};

std::string sizeName(std::uint64_t bytes)
{
    return std::to_string(bytes / kMiB) + " MiB";
}

double startTime(const std::string& buildFolder)
{
    forgetEarlierService();
    ReadySocket socket;
    StartedProcess process({buildFolder + "/bin/quillon-service"}, socket);
    return process.waitUntilReady().count();
}

double idleMemory(const std::string& buildFolder)
{
    const Service service(buildFolder);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    return static_cast<double>(memoryOf(service.pid()).resident) / 1024;
}

double roundTrip(const std::string& buildFolder, int processor)
{
    constexpr int kQuestions = 2000;
    Service service(buildFolder);
    placeOn(service.pid(), processor);
    const OnProcessor here(processors().front());
    return median(roundTrips(service.channel(), MQ_COMMAND_PROGRESS, kQuestions));
}

double estimateAndUpdate(const std::string& buildFolder)
{
    Service service(buildFolder);
    service.useStick(kStick);
    warmMemory(kWarmBytes);
    return service.update().wallSeconds * 1000;
}

class Comparison
{
public:
    Comparison(const BenchPlan& plan, std::string base) : plan_(plan), base_(std::move(base)) {}

    void add(const Subject& subject)
    {
        const auto samples =
            inTurns(plan_.rounds, {[&] { return subject.measure(base_); },
                                   [&] { return subject.measure(plan_.buildFolder); }});
        Json::Value pair;
        pair["work"] = subject.work;
        pair["unit"] = subject.unit;
        pair["base"] = median(samples[0]);
        pair["here"] = median(samples[1]);
        pairs_.append(pair);
    }
    const Json::Value& pairs() const { return pairs_; }

private:
    const BenchPlan& plan_;
    std::string base_;
    Json::Value pairs_{Json::arrayValue};
};

}  // namespace

Json::Value compareBuilds(const BenchPlan& plan, const std::string& base)
{
    Comparison comparison(plan, base);
    Workshop workshop(plan.buildFolder);
    const std::string image = kStick + moduleName(1) + ".bin";
    const std::uint64_t largest = (plan.quick ? 16 : 256) * kMiB;
    const std::set<std::uint64_t> sizes = {kMiB, 16 * kMiB, largest};
    for (const std::uint64_t bytes : sizes) {
        workshop.putImage(workshop.stick(1), moduleName(1), bytes);
        comparison.add({"`aes_256_cbc_all`, " + sizeName(bytes), "ms", [&](const auto& build) {
                            return kernelTime(build, "decipher/service", image);
                        }});
    }
    comparison.add({"`getBinaryCRC32`, " + sizeName(largest), "ms", [&](const auto& build) {
                        return kernelTime(build, "checksum/service", image);
                    }});

    workshop.install(Verifier::kTrivial);
    installModules(plan.buildFolder + "/bench/sink-module.so", 1);
    comparison.add({"estimate then update, " + sizeName(largest), "ms", estimateAndUpdate});
    workshop.install(Verifier::kNone);
    comparison.add({"command 6 round trip, same CPU", "µs",
                    [](const auto& build) { return roundTrip(build, processors().front()); }});
    comparison.add({"command 6 round trip, across CPUs", "µs",
                    [](const auto& build) { return roundTrip(build, processors().back()); }});
    for (const int count : {1, 100, 1000}) {
        installModules(plan.buildFolder + "/bench/tiny-module.so", count);
        comparison.add({"start to READY, modules: " + std::to_string(count), "ms", startTime});
        if (count == 1) {
            comparison.add({"resident memory after the start", "MiB", idleMemory});
        }
    }
    return comparison.pairs();
}

}  // namespace quillon::bench
