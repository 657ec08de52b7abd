#include <gmock/gmock.h>

#include <mqueue.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "support/texts.h"
#include "system/system-test.h"
#include "unit/verifier/test-keys.h"

namespace quillon::test {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::seconds;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr const char* kQueueFiles[] = {"/dev/mqueue/fwupdateservice_usb",
                                       "/dev/mqueue/fwupdatecontrol_usb"};
constexpr const char* kProvisioningPackage = "/usr/share/sdp/quillon-key/00000066.bin";

mode_t modeOf(const char* path)
{
    struct stat status
    {
    };
    return stat(path, &status) == 0 ? status.st_mode & 07777U : 0;
}

int positionOf(const std::vector<std::string>& lines, const std::string& text)
{
    for (std::size_t i = 0; i < lines.size(); ++i) {
        if (lines[i].find(text) != std::string::npos) {
            return static_cast<int>(i);
        }
    }
    ADD_FAILURE() << "no line with: " << text;
    return -1;
}

class StartAndStop : public SystemTest
{
};

TEST_F(StartAndStop, LoadsTheKeyWaitsForLabellingAndAnnouncesReadinessInThisOrder)
{
    daemon.startAndWait();
    ASSERT_TRUE(daemon.logs("set_service_running_done Done"));

    const std::vector<std::string> lines = daemon.log();
    const std::vector<int> places{positionOf(lines, "decryption key load success. key_size : 32"),
                                  positionOf(lines, "smack_early_ready done"),
                                  positionOf(lines, "control task is ready."),
                                  positionOf(lines, "lwipc control is ready."),
                                  positionOf(lines, "set_service_running_done Done")};
    EXPECT_TRUE(std::is_sorted(places.begin(), places.end())) << ::testing::PrintToString(lines);
}

TEST_F(StartAndStop, WaitsForTheLabellingBeforeItServes)
{
    fs::remove(kLabellingReady);
    daemon.start();
    EXPECT_FALSE(daemon.becomesReady(milliseconds(700)));
    EXPECT_FALSE(fs::exists(kQueueFiles[0]));

    writeFile(kLabellingReady, "");
    EXPECT_TRUE(daemon.becomesReady());
    EXPECT_TRUE(fs::exists(kQueueFiles[0]));
}

TEST_F(StartAndStop, EndsWithStatusZeroWithinOneTickWhenTheLifeMarkerGoes)
{
    startDaemon();
    channel.reset();

    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(daemon.stop(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, seconds(20));

    EXPECT_EQ(daemon.logLinesWith("check_main_loop_stop thread stop").size(), 1U);
    EXPECT_EQ(daemon.logLinesWith("firmware_main_task thread stop").size(), 1U);
    EXPECT_EQ(daemon.logLinesWith("firmware_control_task thread stop").size(), 1U);
    for (const char* queue : kQueueFiles) {
        EXPECT_FALSE(fs::exists(queue)) << queue;
    }
}

TEST_F(StartAndStop, StaysAliveAsLongAsTheLifeMarkerIsThere)
{
    startDaemon();
    EXPECT_TRUE(daemon.logs("notify_callback", seconds(15)));  // the first tick
    EXPECT_TRUE(daemon.isRunning());
    EXPECT_TRUE(channel->ask(MQ_COMMAND_PROGRESS));
}

TEST_F(StartAndStop, FailsWithStatus255AndWithoutReadinessWhenThereIsNoModuleDirectory)
{
    fs::remove_all(kModules);
    daemon.start();

    EXPECT_EQ(daemon.waitForEnd(seconds(30)), 255);

    EXPECT_FALSE(fs::exists(kReadyEvent));
    EXPECT_TRUE(fs::exists(kLifeMarker)) << "it is removed at an orderly end only";
    EXPECT_EQ(daemon.logLinesWith("File System Exception: ").size(), 1U);
    for (const char* queue : kQueueFiles) {
        EXPECT_FALSE(fs::exists(queue)) << queue;
    }
}

TEST_F(StartAndStop, ServesWithoutAnyModule)
{
    for (const std::string& name : allModules()) {
        removeModule(name);
    }
    startDaemon();

    const MQData answer = estimate();
    EXPECT_EQ(answer.result, MQ_RESULT_REFUSED);
    EXPECT_EQ(answer.value, 0);
    EXPECT_EQ(start(), std::nullopt);
}

TEST_F(StartAndStop, AfterAStopCommandItAnswersNobodyAndLivesOnUntilTheMarkerGoes)
{
    startDaemon();
    ASSERT_TRUE(channel->send(Channel::record(MQ_COMMAND_STOP)));
    ASSERT_TRUE(daemon.logs("firmware_control_task thread stop"));

    ASSERT_TRUE(channel->send(Channel::record(MQ_COMMAND_PROGRESS)));
    EXPECT_EQ(channel->receive(milliseconds(500)), std::nullopt);
    EXPECT_TRUE(daemon.isRunning());

    EXPECT_EQ(daemon.stop(), 0);
}

TEST_F(StartAndStop, OpensItsQueuesToEveryoneWhateverItsUmask)
{
    daemon.start(077);
    ASSERT_TRUE(daemon.becomesReady());
    for (const char* queue : kQueueFiles) {
        EXPECT_EQ(modeOf(queue), 0666U) << queue;
    }
}

TEST_F(StartAndStop, WithoutAKeyItRefusesEstimatesAndDropsStarts)
{
    removeKey();
    putImagesForAll("2.0");
    startDaemon();

    EXPECT_EQ(estimate().result, MQ_RESULT_REFUSED);
    EXPECT_EQ(start(), std::nullopt);

    EXPECT_EQ(daemon.logLinesWith("Error: quillon is not installed. Need to re-install").size(),
              2U);
    EXPECT_EQ(daemon.logLinesWith("> Error: decrption key is invalid").size(), 1U);
    EXPECT_EQ(daemon.logLinesWith("> decrption key is invalid").size(), 1U);
    EXPECT_EQ(version("tuner"), "1.0");
}

TEST_F(StartAndStop, InstallsTheProvisioningPackageAtItsFirstStartAndKeepsTheKey)
{
    removeKey();
    fs::create_directories(fs::path(kProvisioningPackage).parent_path());
    fs::copy_file(keyPath("a", kProvisioningPackageFile), kProvisioningPackage);
    trustProvisioning("a");
    putImagesForAll("2.0");

    startDaemon();
    if (!daemon.logLinesWith("cannot be sealed").empty()) {
        GTEST_SKIP() << "systemd-creds cannot seal here";
    }
    EXPECT_EQ(estimate().result, MQ_RESULT_ACCEPTED);
    EXPECT_EQ(daemon.logLinesWith("install ok").size(), 1U);
    channel.reset();
    daemon.kill();

    fs::remove(kProvisioningPackage);
    startDaemon();
    EXPECT_EQ(estimate().result, MQ_RESULT_ACCEPTED);
    expectTexts(daemon.logLinesWith("is not installed"), {});
}

TEST_F(StartAndStop, InstallsNoPackageOfSomebodyElse)
{
    removeKey();
    fs::create_directories(fs::path(kProvisioningPackage).parent_path());
    fs::copy_file(keyPath("b", kProvisioningPackageFile), kProvisioningPackage);
    trustProvisioning("a");
    putImagesForAll("2.0");

    startDaemon();
    EXPECT_EQ(estimate().result, MQ_RESULT_REFUSED);
    EXPECT_EQ(daemon.logLinesWith("ret=5 ], install fail").size(), 2U);
    EXPECT_EQ(daemon.logLinesWith("not signed by anyone trusted").size(), 2U);
}

TEST_F(StartAndStop, NeverWritesTheKeyToItsLog)
{
    const std::string item = readAll("/var/lib/quillon/secure-storage/quillon");
    std::string text;
    for (const char byte : item) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char>(byte));
        text += digits;
    }
    putImagesForAll("2.0");
    startDaemon();
    EXPECT_EQ(update(), MQ_RESULT_DONE);

    EXPECT_THAT(daemon.log(), Not(IsEmpty()));
    expectTexts(daemon.logLinesWith(text.substr(0, 16)), {});
}

TEST_F(StartAndStop, WithoutAVerifierLibraryEveryImageCountsAsSigned)
{
    removeVerifier();
    putImagesForAll("2.0");
    fs::resize_file(imagePath("tuner"), fs::file_size(imagePath("tuner")) - kTrailerSize);
    const std::string unsignedTrailer(kTrailerSize, 'x');
    std::ofstream(imagePath("tuner"), std::ios::binary | std::ios::app) << unsignedTrailer;
    startDaemon();

    EXPECT_EQ(update(), MQ_RESULT_DONE);

    expectAllUpdatedTo("2.0");
    EXPECT_EQ(daemon.logLinesWith("[uep][UserCaller] pHandle Error: ").size(), 9U)
        << "an estimate, the first start's own estimate and the update";
}

TEST_F(StartAndStop, LoadsAVerifierThatIsInstalledWhileItRuns)
{
    removeVerifier();
    putImage("tuner", "2.0", "payload", "b");  // signed by nobody that the device trusts
    storeKey("b");
    startDaemon();
    EXPECT_EQ(estimate().result, MQ_RESULT_ACCEPTED);

    fs::copy_file(VERIFIER_LIBRARY, kVerifier);
    EXPECT_EQ(estimate().result, MQ_RESULT_REFUSED);
    EXPECT_EQ(daemon.logLinesWith("the file is NOT signed!! : ").size(), 1U);
}

}  // namespace
}  // namespace quillon::test
