#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>

#include "driven/placement.h"
#include "driven/service.h"
#include "driven/stick.h"
#include "process/device.h"
#include "process/finished-process.h"
#include "process/text-file.h"
#include "rows/results.h"
#include "rows/round-trips.h"
#include "rows/swupdate.h"

namespace fs = std::filesystem;

namespace quillon::bench {
namespace {

using ::testing::HasSubstr;

constexpr const char* kStick = "/opt/media/USBDriveA1/";
constexpr std::uint64_t kPayload = 200000;

class DrivenService : public ::testing::Test
{
protected:
    void SetUp() override
    {
        bootDevice();
        installModules(BUILD_FOLDER "/bench/sink-module.so", 1);
        workshop.putImage(workshop.stick(1), moduleName(1), kPayload);
        workshop.install(Verifier::kOurs);
    }

    Workshop workshop{BUILD_FOLDER};
};

TEST_F(DrivenService, EstimatesAndUpdates)
{
    Service service(BUILD_FOLDER);
    service.useStick(kStick);

    EXPECT_GT(service.estimate().wallSeconds, 0);
    EXPECT_GT(service.update().cpuSeconds, 0);
    EXPECT_GT(service.peakMemory(), 2 * kPayload);
}

TEST_F(DrivenService, ItsModuleWritesThePayloadWhereItIsTold)
{
    const ScopedVariable target("QUILLON_BENCH_TARGET", workshop.folder() + "target");
    Service service(BUILD_FOLDER);
    service.useStick(kStick);
    service.update();

    EXPECT_EQ(readFile(workshop.folder() + "target"), readFile(workshop.payload(kPayload)));
}

TEST_F(DrivenService, ItsModuleTakesAsLongAsItsFlash)
{
    const ScopedVariable flash("QUILLON_BENCH_FLASH", "1000000");
    Service service(BUILD_FOLDER);
    service.useStick(kStick);

    EXPECT_GE(service.update().wallSeconds, 0.2);
}

TEST_F(DrivenService, AnUnsignedImageIsAnErrorOfTheRun)
{
    fs::remove("/etc/quillon/trusted-keys/bench.pem");
    Service service(BUILD_FOLDER);
    service.useStick(kStick);

    EXPECT_THROW(service.estimate(), std::runtime_error);
}

TEST_F(DrivenService, TheVerifierThatGoesByThePathAloneLacksTheOtherEntryOnly)
{
    workshop.install(Verifier::kByPath);
    const std::unique_ptr<void, int (*)(void*)> verifier(
        dlopen("/usr/lib/libkUEPUser.so", RTLD_LAZY), &dlclose);
    ASSERT_NE(verifier, nullptr) << dlerror();
    EXPECT_NE(dlsym(verifier.get(), "verifyFile"), nullptr);
    EXPECT_EQ(dlsym(verifier.get(), "verifyDigest"), nullptr);

    Service service(BUILD_FOLDER);
    service.useStick(kStick);
    EXPECT_NO_THROW(service.update());
}

TEST_F(DrivenService, WithoutAVerifierItIsNot)
{
    fs::remove("/etc/quillon/trusted-keys/bench.pem");
    for (const Verifier verifier : {Verifier::kNone, Verifier::kTrivial}) {
        workshop.install(verifier);
        Service service(BUILD_FOLDER);
        service.useStick(kStick);
        EXPECT_NO_THROW(service.estimate());
    }
}

TEST_F(DrivenService, AnswersAsManyQuestionsAsItIsAsked)
{
    Service service(BUILD_FOLDER);

    const std::vector<double> times = roundTrips(service.channel(), MQ_COMMAND_PROGRESS, 50);

    EXPECT_EQ(times.size(), 50U);
    EXPECT_THAT(times, ::testing::Each(::testing::Gt(0)));
    EXPECT_EQ(service.channel().ask(MQ_COMMAND_PROGRESS).result, MQ_RESULT_NOT_RUNNING);
}

TEST(RecordChannel, QueuesThatAreNotThereAreAnError)
{
    EXPECT_THROW(RecordChannel("/no-such-queue", "/neither"), std::system_error);
}

TEST(QueueEcho, GivesEveryRecordBack)
{
    ReadySocket socket;
    StartedProcess echo({BUILD_FOLDER "/bench/queue-echo", "/bench-in", "/bench-out"}, socket);
    echo.waitUntilReady();
    RecordChannel channel("/bench-in", "/bench-out");

    const MQData reply = channel.ask(MQ_COMMAND_PATH, "a text");

    EXPECT_EQ(reply.command, MQ_COMMAND_PATH);
    EXPECT_STREQ(reply.path, "a text");
}

TEST(Placement, KeepsAProcessOnItsProcessor)
{
    ReadySocket socket;
    StartedProcess process({BUILD_FOLDER "/bench/do-nothing"}, socket);
    process.waitUntilReady();
    const int last = processors().back();

    placeOn(process.pid(), last);

    EXPECT_THAT(readFile("/proc/" + std::to_string(process.pid()) + "/status"),
                HasSubstr("Cpus_allowed_list:\t" + std::to_string(last) + "\n"));
}

TEST(Placement, EndsWithTheObject)
{
    const std::vector<int> before = processors();
    {
        const OnProcessor here(before.back());
        EXPECT_EQ(processors(), std::vector<int>{before.back()});
    }
    EXPECT_EQ(processors(), before);
}

TEST(Workshop, WorksInADeviceOnly)
{
    ASSERT_EQ(unsetenv("QUILLON_DEVICE"), 0);

    EXPECT_THROW(Workshop{BUILD_FOLDER}, std::runtime_error);
}

TEST(Workshop, LeavesNothingBehind)
{
    std::string folder;
    {
        Workshop workshop(BUILD_FOLDER);
        folder = workshop.folder();
        workshop.putImage(workshop.stick(3), moduleName(1), 10);
        EXPECT_TRUE(fs::exists("/opt/media/USBDriveA3/module0001.bin"));
    }
    EXPECT_FALSE(fs::exists(folder));
}

TEST(Workshop, ItsSticksAreEmptyAtFirst)
{
    Workshop workshop(BUILD_FOLDER);
    workshop.putImage(workshop.stick(1), moduleName(1), 10);

    EXPECT_TRUE(fs::is_empty(workshop.stick(1)));
}

TEST(Workshop, MakesPayloadsOfTheirSizeAndTheSameEachTime)
{
    Workshop workshop(BUILD_FOLDER);
    const std::string first = readFile(workshop.payload(100001));
    fs::remove(workshop.payload(100001));

    EXPECT_EQ(first.size(), 100001U);
    EXPECT_EQ(readFile(workshop.payload(100001)), first);
}

TEST(ManyModules, AreAllUpdatedAndTellTheirOwnTime)
{
    const ScopedVariable variable("QUILLON_BENCH_TAKES", "2000");

    const std::string said =
        runToEnd({BUILD_FOLDER "/bench/many-modules", "3", BUILD_FOLDER "/bench/sink-module.so"})
            .output;

    Json::Value figures;
    std::istringstream(said) >> figures;
    EXPECT_EQ(figures["modules"].asInt(), 3);
    EXPECT_GE(figures["ownSeconds"].asDouble(), 0.006);
    EXPECT_GE(figures["seconds"].asDouble(), figures["ownSeconds"].asDouble());
}

TEST(Swupdate, InstallsWhatWeMakeForIt)
{
    if (!Swupdate::isInstalled()) {
        GTEST_SKIP() << "swupdate or cpio is not installed";
    }
    Workshop workshop(BUILD_FOLDER);

    for (const auto writes : {Swupdate::Writes::kOnceVerified, Swupdate::Writes::kWhileReading}) {
        const Swupdate image(workshop.payload(100001), workshop.folder() + "swupdate", writes);
        image.empty();
        const Taken taken = image.install();
        EXPECT_GT(taken.wallSeconds, 0);
        EXPECT_GT(taken.cpuSeconds, 0);
    }
}

}  // namespace
}  // namespace quillon::bench
