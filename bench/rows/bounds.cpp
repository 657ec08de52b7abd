#include "rows/bounds.h"

#include <cstdint>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <optional>
#include <stdexcept>

#include "driven/service.h"
#include "driven/stick.h"
#include "medium/mounted-medium.h"
#include "process/device.h"
#include "process/statistics.h"
#include "rows/rows.h"

namespace fs = std::filesystem;

namespace quillon::bench {
namespace {

constexpr std::uint64_t kMiB = 1U << 20U;

// As long as the other sticks' paths, since a service takes no shorter one after a longer one.
constexpr const char* kSlowStick = "/opt/media/USBDriveA9/";

constexpr double kUsb2 = 40e6;   // bytes a second
constexpr double kFlash = 20e6;  // bytes a second that a slow flash takes

/// Where the images are, what has been read of them before each phase, and the modules' flash.
struct Setting
{
    std::string name;
    bool throttled = false;
    bool dropBeforeUpdate = false;  ///< as on a device whose memory does not hold the images
    double flash = 0;               ///< bytes a second; 0: any amount at once
};

/// The seconds of one phase, and those that each resource was busy in it.
struct Phase
{
    double seconds = 0;
    double medium = 0;
    double processor = 0;
    double plugin = 0;
};

/// The images of so many modules in a folder.
class Images
{
public:
    Images(Workshop& workshop, int stick, int count, std::uint64_t bytes)
        : folder_(workshop.stick(stick)), count_(count), bytes_(bytes)
    {
        workshop.putImage(folder_, moduleName(1), bytes);
        for (int number = 2; number <= count; ++number) {
            fs::copy_file(folder_ + moduleName(1) + ".bin", folder_ + moduleName(number) + ".bin");
        }
    }
    const std::string& folder() const { return folder_; }
    double payload() const { return static_cast<double>(bytes_) * count_; }

    /// Takes them out of the page cache, where they are seen at another place.
    /// @throws std::runtime_error when something of them stays in there
    void dropFrom(const std::string& place) const
    {
        for (int number = 1; number <= count_; ++number) {
            if (dropFromCache(place + moduleName(number) + ".bin") > 0) {
                throw std::runtime_error("the page cache keeps what it was told to drop");
            }
        }
    }

private:
    std::string folder_;
    int count_;
    std::uint64_t bytes_;
};

struct Run
{
    Phase estimate;
    Phase update;
};

Run runOnce(const BenchPlan& plan, const Setting& setting, const Images& images, const Images& tiny)
{
    std::optional<MountedMedium> medium;
    std::string stick = images.folder();
    if (setting.throttled) {
        stick = kSlowStick;
        medium.emplace(plan.buildFolder + "/bench/throttled-medium", images.folder(), stick, kUsb2);
    }
    const auto busy = [&] { return medium ? medium->use().busySeconds : 0; };
    const ScopedVariable flash("QUILLON_BENCH_FLASH", std::to_string(setting.flash));
    Service daemon(plan.buildFolder);
    daemon.useStick(tiny.folder());
    daemon.update();  // with the estimate that only the first one makes

    Run run;
    daemon.useStick(stick);
    double before = busy();
    const Taken estimate = daemon.estimate();
    run.estimate = {estimate.wallSeconds, busy() - before, estimate.cpuSeconds, 0};
    if (setting.dropBeforeUpdate) {
        images.dropFrom(stick);
    }
    before = busy();
    const Taken update = daemon.update();
    run.update = {update.wallSeconds, busy() - before, update.cpuSeconds,
                  setting.flash > 0 ? images.payload() / setting.flash : 0};
    return run;
}

Phase medianOf(const std::vector<Run>& runs, Phase Run::*phase)
{
    const auto field = [&](double Phase::*value) {
        std::vector<double> samples;
        samples.reserve(runs.size());
        for (const Run& run : runs) {
            samples.push_back(run.*phase.*value);
        }
        return median(samples);
    };
    return {field(&Phase::seconds), field(&Phase::medium), field(&Phase::processor),
            field(&Phase::plugin)};
}

Json::Value toJson(const Setting& setting, int modules, const std::string& name, const Phase& phase)
{
    Json::Value value;
    value["setting"] = setting.name;
    value["modules"] = modules;
    value["phase"] = name;
    value["seconds"] = phase.seconds;
    value["medium"] = phase.medium;
    value["processor"] = phase.processor;
    value["plugin"] = phase.plugin;
    value["bound"] = boundOf(phase.medium, phase.processor, phase.plugin);
    return value;
}

}  // namespace

std::string boundOf(double medium, double processor, double plugin)
{
    if (plugin > medium && plugin > processor) {
        return "plug-in";
    }
    return medium > processor ? "medium" : "processor";
}

void measureBounds(const BenchPlan& plan, std::vector<Row>& /*rows*/, Json::Value& series)
{
    if (!fs::exists(plan.buildFolder + "/bench/throttled-medium") || !fs::exists("/dev/fuse")) {
        std::cerr << "no libfuse3 or no /dev/fuse: what bounds many modules is left out\n";
        return;
    }
    const Setting settings[] = {{"in the page cache", false, false, 0},
                                {"at 40 MB/s, read once", true, false, 0},
                                {"at 40 MB/s, read for each phase", true, true, 0},
                                {"at 40 MB/s, flash of 20 MB/s", true, false, kFlash}};
    const std::uint64_t bytes = plan.quick ? kMiB / 4 : 2 * kMiB;
    const int rounds = plan.quick ? 1 : 3;

    Workshop workshop(plan.buildFolder);
    workshop.install(Verifier::kOurs);
    series["bounds"] = Json::Value(Json::arrayValue);
    series["boundsImageBytes"] = Json::Value::UInt64{bytes};
    for (const int count : {1, 10, 100}) {
        installModules(plan.buildFolder + "/bench/sink-module.so", count);
        const Images images(workshop, 1, count, bytes);
        const Images tiny(workshop, 2, count, 1);
        std::vector<std::vector<Run>> runs(std::size(settings));
        for (int round = 0; round < rounds; ++round) {
            for (std::size_t i = 0; i < runs.size(); ++i) {
                runs[i].push_back(runOnce(plan, settings[i], images, tiny));
            }
        }
        for (std::size_t i = 0; i < runs.size(); ++i) {
            series["bounds"].append(
                toJson(settings[i], count, "estimate", medianOf(runs[i], &Run::estimate)));
            series["bounds"].append(
                toJson(settings[i], count, "update", medianOf(runs[i], &Run::update)));
        }
    }
    workshop.install(Verifier::kNone);
}

}  // namespace quillon::bench
