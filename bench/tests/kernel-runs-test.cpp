#include "rows/kernel-runs.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "driven/stick.h"
#include "process/device.h"

namespace quillon::bench {
namespace {

constexpr const char* kKernels[] = {
    "decipher/service", "decipher/plain",    "decipher/service-twice", "decipher/plain-twice",
    "checksum/service", "checksum/bytewise", "checksum/reading-alone"};

TEST(KernelRuns, EachBenchmarkTakesATime)
{
    Workshop workshop(BUILD_FOLDER);
    const std::string stick = workshop.stick(1);
    workshop.putImage(stick, moduleName(1), 300000);

    for (const char* kernel : kKernels) {
        EXPECT_GT(kernelTime(BUILD_FOLDER, kernel, stick + moduleName(1) + ".bin"), 0) << kernel;
    }
}

TEST(KernelRuns, WhatIsNotThereIsAnError)
{
    Workshop workshop(BUILD_FOLDER);
    const std::string file = workshop.payload(1000);

    EXPECT_THROW(kernelTime(BUILD_FOLDER, "no/such", file), std::runtime_error);
    EXPECT_THROW(kernelTime(BUILD_FOLDER, "checksum/service", "/no/such/file"), std::runtime_error);
    EXPECT_THROW(kernelTime("/no/such/build", "checksum/service", file), std::runtime_error);
}

TEST(KernelRuns, AnImageThatCannotBeDecipheredIsAnError)
{
    Workshop workshop(BUILD_FOLDER);

    EXPECT_THROW(kernelTime(BUILD_FOLDER, "decipher/plain", workshop.payload(560)),
                 std::runtime_error);
}

TEST(BenchmarkReport, TellsTheTimeOfItsOnlyBenchmark)
{
    EXPECT_EQ(millisecondsIn(R"({"benchmarks": [{"real_time": 12.5, "time_unit": "ms"}]})"), 12.5);
}

TEST(BenchmarkReport, AnythingElseIsRefused)
{
    EXPECT_THROW(millisecondsIn(""), std::runtime_error);
    EXPECT_THROW(millisecondsIn(R"({"benchmarks": []})"), std::runtime_error);
    EXPECT_THROW(millisecondsIn(R"({"benchmarks": [{"real_time": 1, "time_unit": "ns"}]})"),
                 std::runtime_error);
    EXPECT_THROW(millisecondsIn(R"({"benchmarks": [{"error_occurred": true,
                     "error_message": "why", "real_time": 1, "time_unit": "ms"}]})"),
                 std::runtime_error);
}

TEST(OpensslReport, TellsTheSpeed)
{
    EXPECT_EQ(speedIn("+DT:AES-256-CBC:1:16384\n+H:16384\n+F:25:AES-256-CBC:6768212059.70\n"),
              6768212059.70);
    EXPECT_THROW(speedIn("+H:16384\n"), std::runtime_error);
}

}  // namespace
}  // namespace quillon::bench
