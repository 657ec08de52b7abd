#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "driven/placement.h"
#include "driven/stick.h"
#include "process/device.h"
#include "process/finished-process.h"
#include "process/statistics.h"
#include "rows/kernel-runs.h"
#include "rows/rows.h"

namespace quillon::bench {
namespace {

constexpr std::uint64_t kMiB = 1U << 20U;

/// Bytes a second of OpenSSL's own loop over one block that stays in the processor's cache.
double opensslSpeed()
{
    const OnProcessor here(processors().front());
    return speedIn(runToEnd({"openssl", "speed", "-mr", "-evp", "aes-256-cbc", "-decrypt",
                             "-seconds", "1", "-bytes", "16384"})
                       .output);
}

std::string sizeName(std::uint64_t bytes)
{
    return std::to_string(bytes / kMiB) + " MiB";
}

std::string times(double milliseconds, double other, const std::string& otherName)
{
    return fixed(milliseconds, 2) + " ms; " + otherName + " " + fixed(other, 2) + " ms";
}

/// kernelTime on one processor.
double timeOnOne(const std::string& buildFolder, const std::string& kernel, const std::string& file,
                 const std::string& program = "quillon-kernels")
{
    const OnProcessor here(processors().front());
    return kernelTime(buildFolder, kernel, file, program);
}

struct Deciphered
{
    double service = 0;  ///< medians, ms
    double plain = 0;
    double serviceOnAll = 0;  ///< on whatever processors there are; 0 when not asked for
    double openssl = 0;       ///< bytes a second; 0 when not asked for
};

Deciphered decipher(const BenchPlan& plan, const std::string& image, bool withMore)
{
    const std::string& build = plan.buildFolder;
    std::vector<Measurement> all = {[&] { return timeOnOne(build, "decipher/service", image); },
                                    [&] { return timeOnOne(build, "decipher/plain", image); }};
    if (withMore) {
        all.emplace_back([&] { return kernelTime(build, "decipher/service", image); });
        all.emplace_back(opensslSpeed);
    }
    const auto samples = inTurns(plan.rounds, all);
    Deciphered medians{median(samples[0]), median(samples[1])};
    if (withMore) {
        medians.serviceOnAll = median(samples[2]);
        medians.openssl = median(samples[3]);
    }
    return medians;
}

/// What deciphering consists of, each part measured alone, beside the whole.
Json::Value decipheringParts(const BenchPlan& plan, const std::string& image)
{
    const auto alone = [&](const char* part) {
        return [&plan, &image, part] { return timeOnOne(plan.buildFolder, part, image); };
    };
    const auto samples =
        inTurns(plan.rounds, {alone("decipher/service"), alone("decipher/part-reading"),
                              alone("decipher/part-memory"), alone("decipher/part-cipher")});
    Json::Value parts;
    parts["whole"] = median(samples[0]);
    parts["reading"] = median(samples[1]);
    parts["memory"] = median(samples[2]);
    parts["cipher"] = median(samples[3]);
    parts["bytes"] = Json::Value::UInt64{std::filesystem::file_size(image)};
    return parts;
}

void measureDeciphering(const BenchPlan& plan, Workshop& workshop, std::vector<Row>& rows,
                        Json::Value& series)
{
    struct Size
    {
        std::uint64_t bytes;
        double goal;  ///< 0: for the chart only
    };
    const Size sizes[] = {
        {kMiB, 1.0}, {4 * kMiB, 0}, {16 * kMiB, 1.4}, {64 * kMiB, 0}, {256 * kMiB, 1.6}};
    Json::Value& points = series["deciphering"] = Json::Value(Json::arrayValue);
    for (const Size& size : sizes) {
        if (plan.quick && size.bytes > 16 * kMiB) {
            break;
        }
        const std::string stick = workshop.stick(1);
        workshop.putImage(stick, moduleName(1), size.bytes);
        const std::string image = stick + moduleName(1) + ".bin";
        const bool isLargest = size.bytes == (plan.quick ? 16 : 256) * kMiB;
        const Deciphered taken = decipher(plan, image, isLargest);

        Json::Value point;
        point["bytes"] = Json::Value::UInt64{size.bytes};
        point["service"] = taken.service;
        point["plain"] = taken.plain;
        point["goal"] = size.goal;
        points.append(point);
        if (size.goal > 0) {
            rows.push_back({"`aes_256_cbc_all`, " + sizeName(size.bytes), "the plain loop",
                            "times as fast", taken.plain / taken.service, Sense::kAtLeast,
                            size.goal, times(taken.service, taken.plain, "plain")});
        }
        if (isLargest) {
            const double speed = static_cast<double>(size.bytes) / (taken.service / 1000);
            const double speedOnAll = static_cast<double>(size.bytes) / (taken.serviceOnAll / 1000);
            rows.push_back({"`aes_256_cbc_all`, " + sizeName(size.bytes),
                            "`openssl speed`, AES-256-CBC deciphering", "of its speed",
                            speed / taken.openssl, Sense::kAtLeast, 0.38,
                            fixed(speed / 1e9, 2) + " GB/s; OpenSSL " +
                                fixed(taken.openssl / 1e9, 2) + " GB/s; ours with all processors " +
                                fixed(speedOnAll / 1e9, 2) + " GB/s"});
            series["decipheringParts"] = decipheringParts(plan, image);
        }
    }
}

void measureChecksums(const BenchPlan& plan, Workshop& workshop, std::vector<Row>& rows)
{
    const std::uint64_t bytes = plan.quick ? 16 * kMiB : 256 * kMiB;
    const std::string file = workshop.payload(bytes);
    const std::string& build = plan.buildFolder;
    const auto samples = inTurns(
        plan.rounds,
        {[&] { return timeOnOne(build, "checksum/service", file); },
         [&] { return timeOnOne(build, "checksum/reading-alone", file); },
         [&] { return timeOnOne(build, "checksum/bytewise", file); },
         [&] { return timeOnOne(build, "checksum/service", file, "quillon-kernels-sliced"); }});
    const double service = median(samples[0]);
    const double reading = median(samples[1]);
    const double bytewise = median(samples[2]);
    const double sliced = median(samples[3]);
    const std::string work = "`getBinaryCRC32`, " + sizeName(bytes);
    rows.push_back({work, "a bytewise table", "times as fast", bytewise / service, Sense::kAtLeast,
                    15, times(service, bytewise, "bytewise")});
    rows.push_back({work, "`fread` alone", "of its speed", reading / service, Sense::kAtLeast, 0.6,
                    times(service, reading, "reading")});
    rows.push_back({work + ", no carry-less multiply", "a bytewise table", "times as fast",
                    bytewise / sliced, Sense::kAtLeast, 4.5, times(sliced, bytewise, "bytewise")});
}

}  // namespace

void measureKernels(const BenchPlan& plan, std::vector<Row>& rows, Json::Value& series)
{
    Workshop workshop(plan.buildFolder);
    measureDeciphering(plan, workshop, rows, series);
    measureChecksums(plan, workshop, rows);
}

}  // namespace quillon::bench
