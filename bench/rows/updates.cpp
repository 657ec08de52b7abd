#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include "driven/service.h"
#include "driven/stick.h"
#include "process/device.h"
#include "process/finished-process.h"
#include "process/statistics.h"
#include "process/warm-memory.h"
#include "rows/kernel-runs.h"
#include "rows/rows.h"
#include "rows/swupdate.h"

namespace fs = std::filesystem;

namespace quillon::bench {
namespace {

constexpr std::uint64_t kMiB = 1U << 20U;
constexpr std::uint64_t kTiny = 65536;

/// Two sticks with names of one length, since a service takes no shorter one after a longer one.
constexpr const char* kLargeStick = "/opt/media/USBDriveA1/";
constexpr const char* kTinyStick = "/opt/media/USBDriveA2/";

std::string sizeName(std::uint64_t bytes)
{
    return std::to_string(bytes / kMiB) + " MiB";
}

/// Estimate and update with everything trivial but the service: what its own work takes.
void measureBoth(const BenchPlan& plan, std::uint64_t bytes, std::vector<Row>& rows)
{
    double peak = 0;
    const auto service = [&] {
        Service daemon(plan.buildFolder);
        daemon.useStick(kLargeStick);
        warmMemory(2 * bytes);
        const double seconds = daemon.update().wallSeconds;
        peak = std::max(peak, static_cast<double>(daemon.peakMemory()));
        return seconds;
    };
    const std::string image = kLargeStick + moduleName(1) + ".bin";
    const auto twice = [&](const char* kernel) {
        return [&plan, &image, kernel] {
            return 2 * kernelTime(plan.buildFolder, kernel, image) / 1000;
        };
    };
    const auto samples = inTurns(
        plan.rounds, {service, twice("decipher/plain-twice"), twice("decipher/service-twice")});
    const double ours = median(samples[0]);
    const double theirs = median(samples[1]);
    const double alone = median(samples[2]);
    const std::string work = "estimate then update of one image, " + sizeName(bytes);
    rows.push_back(
        {work, "the plain loop twice", "times as fast", theirs / ours, Sense::kAtLeast, 1.6,
         fixed(ours * 1000, 1) + " ms; plain loop twice " + fixed(theirs * 1000, 1) +
             " ms; of ours, deciphering twice takes " + fixed(alone * 1000, 1) + " ms alone"});
    // The estimate's plain text is gone before the update begins.
    const auto size = static_cast<double>(fs::file_size(image));
    rows.push_back({"the same, peak memory", "the image", "MiB beyond it",
                    (peak - size) / kMebibyte, Sense::kAtMost, 16,
                    fixed(peak / kMebibyte, 1) + " MiB in all"});
}

/// One update run, without the estimate before it, into a file.
Taken updateRunIntoFile(const std::string& buildFolder, const std::string& target,
                        std::uint64_t bytes)
{
    fs::remove(target);
    Service daemon(buildFolder);
    daemon.useStick(kTinyStick);
    daemon.update();  // with the estimate that only the first one makes
    fs::remove(target);
    daemon.useStick(kLargeStick);
    warmMemory(2 * bytes);
    return daemon.update();
}

/// Wall and processor seconds of the runs of something.
class Runs
{
public:
    explicit Runs(std::function<Taken()> work) : work_(std::move(work)) {}

    double once()
    {
        const Taken taken = work_();
        wall_.push_back(taken.wallSeconds);
        cpu_.push_back(taken.cpuSeconds);
        return taken.wallSeconds;
    }
    double wall() const { return median(wall_); }
    double cpu() const { return median(cpu_); }

private:
    std::function<Taken()> work_;
    std::vector<double> wall_;
    std::vector<double> cpu_;
};

struct Seconds
{
    double ours;
    double theirs;
    double direct;  ///< theirs when they write before all is verified
    double start;   ///< theirs
};

void addShare(const std::string& work, const std::string& unit, const Seconds& seconds,
              std::vector<Row>& rows)
{
    const auto ms = [](double value) { return fixed(value * 1000, 1) + " ms"; };
    rows.push_back({work, "`swupdate`, net of its fixed start", "of its " + unit,
                    seconds.ours / (seconds.theirs - seconds.start), Sense::kAtMost, 0.6,
                    ms(seconds.ours) + "; swupdate " + ms(seconds.theirs - seconds.start) +
                        " and a start of " + ms(seconds.start) +
                        "; writing before all is verified, which our service never does, " +
                        ms(seconds.direct - seconds.start)});
}

/// What it costs to have the verifier asked about what was really read, besides the path.
void measureAsking(const BenchPlan& plan, const Workshop& workshop, std::uint64_t bytes,
                   std::vector<Row>& rows)
{
    const std::string target = "/opt/media/target";
    const ScopedVariable variable("QUILLON_BENCH_TARGET", target);
    const auto updating = [&](Verifier verifier) {
        return [&, verifier] {
            workshop.install(verifier);
            return updateRunIntoFile(plan.buildFolder, target, bytes);
        };
    };
    Runs asked(updating(Verifier::kOurs));
    Runs byPath(updating(Verifier::kByPath));
    inTurns(plan.longRounds, {[&] { return asked.once(); }, [&] { return byPath.once(); }});

    const auto add = [&](const std::string& unit, double with, double without, double limit) {
        rows.push_back(
            {"update run whose verifier is asked about what was read, " + sizeName(bytes) + ", " +
                 unit,
             "the same, asked by path alone", "times its " + unit + " time", with / without,
             Sense::kAtMost, limit,
             fixed(with * 1000, 1) + " ms; by path alone " + fixed(without * 1000, 1) + " ms"});
    };
    add("wall", asked.wall(), byPath.wall(), 1.35);
    add("CPU", asked.cpu(), byPath.cpu(), 1.60);
    fs::remove(target);
}

void measureBesideSwupdate(const BenchPlan& plan, const Workshop& workshop,
                           const std::string& large, const std::string& tiny, std::uint64_t bytes,
                           std::vector<Row>& rows)
{
    if (!Swupdate::isInstalled()) {
        std::cerr << "swupdate or cpio is not installed: its rows are left out\n";
        return;
    }
    const std::string target = "/opt/media/target";
    const ScopedVariable variable("QUILLON_BENCH_TARGET", target);
    const std::string folder = workshop.folder() + "swupdate";
    const Swupdate verified(large, folder + "/verified", Swupdate::Writes::kOnceVerified);
    const Swupdate direct(large, folder + "/direct", Swupdate::Writes::kWhileReading);
    const Swupdate smallest(tiny, folder + "/tiny", Swupdate::Writes::kOnceVerified);

    Runs ours([&] { return updateRunIntoFile(plan.buildFolder, target, bytes); });
    const auto installing = [bytes](const Swupdate& image) {
        return [&image, bytes] {
            image.empty();
            warmMemory(2 * bytes);
            return image.install();
        };
    };
    Runs theirs(installing(verified));
    Runs theirsDirect(installing(direct));
    Runs start(installing(smallest));
    inTurns(plan.longRounds, {[&] { return ours.once(); }, [&] { return theirs.once(); },
                              [&] { return theirsDirect.once(); }, [&] { return start.once(); }});
    runToEnd({"cmp", target, large});

    const std::string work = "update run of a signed image into a file, " + sizeName(bytes);
    addShare(work + ", wall", "wall time",
             {ours.wall(), theirs.wall(), theirsDirect.wall(), start.wall()}, rows);
    addShare(work + ", CPU", "CPU time",
             {ours.cpu(), theirs.cpu(), theirsDirect.cpu(), start.cpu()}, rows);
    fs::remove_all(folder);
    fs::remove(target);
}

}  // namespace

void measureUpdates(const BenchPlan& plan, std::vector<Row>& rows, Json::Value& /*series*/)
{
    const std::uint64_t bytes = (plan.quick ? 16 : 256) * kMiB;
    Workshop workshop(plan.buildFolder);
    workshop.putImage(workshop.stick(1), moduleName(1), bytes);
    workshop.putImage(workshop.stick(2), moduleName(1), kTiny);
    installModules(plan.buildFolder + "/bench/sink-module.so", 1);

    workshop.install(Verifier::kTrivial);
    measureBoth(plan, bytes, rows);
    measureAsking(plan, workshop, bytes, rows);
    workshop.install(Verifier::kOurs);
    measureBesideSwupdate(plan, workshop, workshop.payload(bytes), workshop.payload(kTiny), bytes,
                          rows);
    workshop.install(Verifier::kNone);
}

}  // namespace quillon::bench
