#include "support/texts.h"
#include "system/system-test.h"
#include "system/tracer.h"

namespace quillon::test {
namespace {

/// The shipped daemon under a debugger that knows nothing but the probe.
class Trace : public SystemTest
{
protected:
    void SetUp() override
    {
        if (!Tracer::installed()) {
            GTEST_SKIP() << "there is no gdb on this machine";
        }
        SystemTest::SetUp();
        startDaemon();
        const std::string refusal = tracer.attachTo(daemon.pid());
        if (!refusal.empty()) {
            GTEST_SKIP() << refusal;
        }
    }

    void TearDown() override
    {
        tracer.detach();
        SystemTest::TearDown();
    }

    Tracer tracer;
};

TEST_F(Trace, ShowsThePlaceAndTheTextOfALogLineAsSixArguments)
{
    expectText(tracer.probes(), like("*quillon  log*"));
    ASSERT_TRUE(channel->ask(MQ_COMMAND_PROGRESS));

    const std::string text = "Service is not being updated.";
    ASSERT_TRUE(daemon.logs(text));
    const std::string line = daemon.logLinesWith(text).front();
    const std::size_t number = line.find('(') + 1;
    const std::string hit = "6|FWUPDATE|quillon-service.cpp|firmware_control_task|" +
                            line.substr(number, line.find(')') - number) + "|" + text + "|";
    EXPECT_TRUE(eventually([&] { return !tracer.hits().empty(); }));
    expectTextAmong(tracer.hits(), hit);
}

TEST_F(Trace, ShowsTheMessageAsItIsFormatted)
{
    estimate();
    EXPECT_TRUE(eventually([&] { return tracer.hits().size() >= 3; }));
    expectTextAmong(tracer.hits(), like("*|Error: /opt/media/USBDriveA/tuner.bin open fail|*"));
}

TEST_F(Trace, LeavesTheServiceServingWhenTheTracerHasGone)
{
    ASSERT_TRUE(channel->ask(MQ_COMMAND_PROGRESS));
    EXPECT_TRUE(eventually([&] { return !tracer.hits().empty(); }));
    tracer.detach();

    putImagesForAll("2.0");
    EXPECT_EQ(update(), MQ_RESULT_DONE);
    EXPECT_EQ(linesOf("/proc/" + std::to_string(daemon.pid()) + "/status", "TracerPid:\t0").size(),
              1U);
    EXPECT_EQ(daemon.stop(), 0);
}

}  // namespace
}  // namespace quillon::test
