#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <filesystem>

#include "quillon/client.h"
#include "support/texts.h"
#include "system/system-test.h"
#include "unit/verifier/test-keys.h"

namespace quillon::test {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::seconds;
using ::testing::AllOf;
using ::testing::Ge;
using ::testing::IsEmpty;
using ::testing::Le;
using ::testing::SizeIs;

/// The modules in the daemon's order, which is that of its module directory.
std::vector<std::string> orderOf(const Daemon& daemon)
{
    std::vector<std::string> names;
    for (const std::string& line : daemon.logLinesWith("> Need Update [")) {
        const std::size_t begin = line.find('[') + 1;
        names.push_back(line.substr(begin, line.find(']') - begin));
    }
    return names;
}

/// Makes every flash of a module fail: its directory is a file.
void breakModule(const std::string& name)
{
    const std::string directory = "/var/lib/quillon/examples/" + name;
    fs::remove_all(directory);
    writeFile(directory, "broken");
}

class UsbUpdate : public SystemTest
{
};

TEST_F(UsbUpdate, BringsEveryModuleItsPayloadByteForByte)
{
    putImagesForAll("2.0", 300000);
    startDaemon();

    const MQData expected = estimate();
    EXPECT_EQ(expected.result, MQ_RESULT_ACCEPTED);
    EXPECT_EQ(expected.value, 15);
    ASSERT_EQ(start(), MQ_RESULT_ACCEPTED);
    const MQData last = waitForRun();
    EXPECT_EQ(last.result, MQ_RESULT_DONE);
    EXPECT_EQ(last.value, 100);

    expectAllUpdatedTo("2.0");
}

TEST_F(UsbUpdate, AnswersInRecordsThatAreZeroWhereTheySayNothing)
{
    startDaemon();
    const auto reply = channel->ask(MQ_COMMAND_PROGRESS);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->command, MQ_COMMAND_REPLY);
    EXPECT_EQ(reply->kind, FW_MQ_KIND);
    EXPECT_EQ(reply->result, MQ_RESULT_NOT_RUNNING);
    EXPECT_EQ(reply->value, 0);
    for (const char byte : reply->path) {
        EXPECT_EQ(byte, 0);
    }
    for (const unsigned char byte : reply->reserved) {
        EXPECT_EQ(byte, 0);
    }
}

TEST_F(UsbUpdate, StartsWithoutAnEstimateBeforehandSinceTheFirstStartMakesItsOwn)
{
    putImagesForAll("2.0");
    startDaemon();
    ASSERT_EQ(start(), MQ_RESULT_ACCEPTED);
    EXPECT_EQ(waitForRun().result, MQ_RESULT_DONE);
    expectAllUpdatedTo("2.0");
}

TEST_F(UsbUpdate, LeavesAloneWhatIsUpToDateAndUpdatesTheRest)
{
    putImagesForAll("2.0");
    putImage("panel", "1.0", "the same version again");
    startDaemon();

    EXPECT_EQ(estimate().value, 10);
    EXPECT_EQ(update(), MQ_RESULT_DONE);

    EXPECT_EQ(flashed("panel"), "as delivered");
    EXPECT_EQ(flashed("tuner"), payloadOf("tuner"));
    EXPECT_EQ(flashed("camera"), payloadOf("camera"));
}

TEST_F(UsbUpdate, RefusesImagesThatWereEncipheredWithAnotherKey)
{
    putImagesForAll("2.0");
    storeKey("b");
    startDaemon();

    EXPECT_EQ(estimate().result, MQ_RESULT_REFUSED);
    EXPECT_EQ(start(), std::nullopt);
    for (const std::string& name : allModules()) {
        EXPECT_EQ(flashed(name), "as delivered");
    }
    EXPECT_TRUE(daemon.isRunning());
}

TEST_F(UsbUpdate, RefusesImagesThatWereSignedBySomebodyElse)
{
    storeKey("b");  // so that only the signature is wrong
    for (const std::string& name : allModules()) {
        putImage(name, "2.0", "payload", "b");
    }
    startDaemon();

    EXPECT_EQ(estimate().result, MQ_RESULT_REFUSED);
    EXPECT_EQ(start(), std::nullopt);
    EXPECT_EQ(daemon.logLinesWith(".bin is NOT signed ").size(), 6U);
    for (const std::string& name : allModules()) {
        EXPECT_EQ(flashed(name), "as delivered");
    }
}

TEST_F(UsbUpdate, StopsAtTheFirstModuleThatFailsAndLeavesTheRestUntouched)
{
    putImagesForAll("2.0");
    startDaemon();
    ASSERT_EQ(estimate().result, MQ_RESULT_ACCEPTED);
    const std::vector<std::string> order = orderOf(daemon);
    ASSERT_THAT(order, SizeIs(3));
    breakModule(order[1]);

    ASSERT_EQ(start(), MQ_RESULT_ACCEPTED);
    EXPECT_EQ(waitForRun().result, MQ_RESULT_FAILED);

    EXPECT_EQ(flashed(order[0]), payloadOf(order[0]));
    EXPECT_EQ(flashed(order[2]), "as delivered");
    EXPECT_EQ(daemon.logLinesWith("update fail [" + order[1] + "]").size(), 1U);
    expectTexts(daemon.logLinesWith("[ " + order[2] + " update start ]"), {});
}

TEST_F(UsbUpdate, ReportsTimeAsPercentWhileItRuns)
{
    removeModule("panel");
    removeModule("camera");
    setModule("tuner", 100000, 8);
    putImagesForAll("2.0", 400000);  // 4 s of an expected 8
    startDaemon();
    ASSERT_EQ(start(), MQ_RESULT_ACCEPTED);

    std::vector<int> percents;
    eventually(
        [&] {
            const auto reply = channel->ask(MQ_COMMAND_PROGRESS);
            if (!reply || reply->result != MQ_RESULT_RUNNING) {
                return true;
            }
            percents.push_back(reply->value);
            return false;
        },
        kLongestUpdate);

    ASSERT_THAT(percents, Not(IsEmpty()));
    EXPECT_TRUE(std::is_sorted(percents.begin(), percents.end()));
    EXPECT_EQ(percents.front(), 0);
    EXPECT_THAT(percents, ::testing::Contains(25));  // whole seconds: 12, 25, 37
    EXPECT_THAT(percents.back(), AllOf(Ge(25), Le(99)));
}

TEST_F(UsbUpdate, StopsAtNinetyNinePercentWhenItTakesLongerThanExpected)
{
    removeModule("panel");
    removeModule("camera");
    setModule("tuner", 100000, 1);
    putImagesForAll("2.0", 250000);
    startDaemon();
    ASSERT_EQ(start(), MQ_RESULT_ACCEPTED);

    const auto reachesNinetyNine = [&] {
        const auto reply = channel->ask(MQ_COMMAND_PROGRESS);
        EXPECT_TRUE(reply && reply->result == MQ_RESULT_RUNNING && reply->value <= 99);
        return !reply || reply->result != MQ_RESULT_RUNNING || reply->value == 99;
    };
    EXPECT_TRUE(eventually(reachesNinetyNine));
    EXPECT_EQ(waitForRun().result, MQ_RESULT_DONE);
}

TEST_F(UsbUpdate, ReportsTheEndOnceAndIsIdleThereafter)
{
    putImagesForAll("2.0");
    startDaemon();
    EXPECT_EQ(update(), MQ_RESULT_DONE);

    const auto reply = channel->ask(MQ_COMMAND_PROGRESS);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->result, MQ_RESULT_NOT_RUNNING);
    EXPECT_EQ(reply->value, 0);
}

TEST_F(UsbUpdate, RefusesAnotherStartUntilTheEndWasReported)
{
    putImagesForAll("2.0");
    startDaemon();
    ASSERT_TRUE(channel->send(Channel::record(MQ_COMMAND_START)));
    const auto accepted = channel->receive();
    ASSERT_TRUE(accepted && accepted->result == MQ_RESULT_ACCEPTED);
    ASSERT_TRUE(eventually([&] { return version(orderOf(daemon).back()) == "2.0"; }));

    const auto refused = channel->ask(MQ_COMMAND_START);
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->result, MQ_RESULT_REFUSED);
    EXPECT_EQ(daemon.logLinesWith("Service is being updated.").size(), 1U);
    EXPECT_EQ(waitForRun().result, MQ_RESULT_DONE);
}

TEST_F(UsbUpdate, UpdatesAgainFromAnotherStickInTheSameLife)
{
    startDaemon();
    for (const char* wanted : {"2.0", "3.0", "3.1"}) {
        putImagesForAll(wanted);
        EXPECT_EQ(update(), MQ_RESULT_DONE) << wanted;
        expectAllUpdatedTo(wanted);
    }
    EXPECT_EQ(update(), MQ_RESULT_REFUSED) << "nothing is newer any more";
}

TEST_F(UsbUpdate, AnswersAnEstimateWhileARunIsGoingOn)
{
    setModule("tuner", 100000, 5);
    putImagesForAll("2.0", 100000);
    startDaemon();
    ASSERT_EQ(start(), MQ_RESULT_ACCEPTED);

    EXPECT_EQ(estimate().result, MQ_RESULT_ACCEPTED);
    EXPECT_EQ(waitForRun().result, MQ_RESULT_DONE);
}

TEST_F(UsbUpdate, ANewDirectoryDuringARunHoldsForTheModulesStillToCome)
{
    for (const std::string& name : allModules()) {
        setModule(name, 100000, 5);  // a second each
    }
    putImagesForAll("2.0", 100000);
    startDaemon();
    ASSERT_EQ(start(), MQ_RESULT_ACCEPTED);
    const std::vector<std::string> order = orderOf(daemon);
    ASSERT_THAT(order, SizeIs(3));
    ASSERT_TRUE(daemon.logs("[ " + order[0] + " update start ]"));

    const auto reply = channel->setPath("/opt/media/USBDriveB/");
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->result, MQ_RESULT_ACCEPTED);

    // Nothing is asked meanwhile: the control task's log lines would order the two tasks, and
    // ThreadSanitizer would no longer see them share the directory.
    ASSERT_TRUE(daemon.logs("Error: doUpdateUSB fail"));
    EXPECT_EQ(waitForRun().result, MQ_RESULT_FAILED);
    EXPECT_EQ(flashed(order[0]), payloadOf(order[0]));
    EXPECT_EQ(flashed(order[1]), "as delivered");
    EXPECT_EQ(
        daemon.logLinesWith("Error: /opt/media/USBDriveB/" + order[1] + ".bin file open").size(),
        1U);
}

TEST_F(UsbUpdate, ALongDirectoryShowsThroughAShorterOneThatFollows)
{
    startDaemon();
    ASSERT_TRUE(channel->setPath("/opt/X/"));
    estimate();

    EXPECT_EQ(daemon.logLinesWith("Error: /opt/X/dia/USBDriveA/tuner.bin open fail").size(), 1U);
}

TEST_F(UsbUpdate, TakesAtMost127CharactersOfADirectory)
{
    const std::string path = "/" + std::string(199, 'p');
    startDaemon();
    ASSERT_TRUE(channel->setPath(path));
    estimate();

    EXPECT_EQ(daemon.logLinesWith("Error: " + path.substr(0, 127) + "tuner.bin open fail").size(),
              1U);
}

class ClientUpdate : public UsbUpdate
{
protected:
    /// @return the state in which the run ended
    static Progress::State run(Client& client)
    {
        if (const Error error = client.start()) {
            ADD_FAILURE() << error.text;
            return Progress::kIdle;
        }
        Result<Progress> now;
        eventually(
            [&] {
                now = client.progress();
                return now.error || now.value.state != Progress::kRunning;
            },
            kLongestUpdate);
        EXPECT_FALSE(now.error) << now.error.text;
        return now.value.state;
    }
};

TEST_F(ClientUpdate, RunsAWholeUpdateThroughTheClientLibrary)
{
    putImagesForAll("2.0");
    daemon.startAndWait();

    Client client;
    ASSERT_FALSE(client.connect());
    ASSERT_FALSE(client.setDirectory("/opt/media/USBDriveA"));
    const Result<Estimate> expected = client.estimate();
    ASSERT_FALSE(expected.error);
    EXPECT_TRUE(expected.value.updateNeeded);
    EXPECT_EQ(expected.value.seconds, 15);
    EXPECT_EQ(run(client), Progress::kDone);

    expectAllUpdatedTo("2.0");
}

TEST_F(ClientUpdate, FindsAShortDirectoryAfterALongOne)
{
    putImagesForAll("2.0");
    daemon.startAndWait();
    Client client;
    ASSERT_FALSE(client.connect());

    ASSERT_FALSE(client.setDirectory("/opt/media/" + std::string(110, 'x')));
    EXPECT_FALSE(client.estimate().value.updateNeeded);
    ASSERT_FALSE(client.setDirectory(kStick));
    EXPECT_TRUE(client.estimate().value.updateNeeded);
    EXPECT_EQ(run(client), Progress::kDone);
}

TEST_F(ClientUpdate, IsNotMisledByRepliesThatACrashedClientNeverRead)
{
    putImagesForAll("2.0");
    startDaemon();
    for (int i = 0; i < 8; ++i) {
        ASSERT_TRUE(channel->send(Channel::record(MQ_COMMAND_TIME)));
    }
    channel.reset();

    Client client;
    ASSERT_FALSE(client.connect());
    const Result<Progress> now = client.progress();
    ASSERT_FALSE(now.error) << now.error.text;
    EXPECT_EQ(now.value.state, Progress::kIdle);
    EXPECT_EQ(client.estimate().value.seconds, 15);
}

TEST_F(ClientUpdate, IsToldThatTheServiceEnded)
{
    daemon.startAndWait();
    Client client;
    ASSERT_FALSE(client.connect());
    ASSERT_EQ(daemon.stop(), 0);

    EXPECT_EQ(client.progress().error.code, ErrorCode::kLost);
    EXPECT_EQ(Client().connect().code, ErrorCode::kNoService);
}

}  // namespace
}  // namespace quillon::test
