#include <gtest/gtest.h>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "fakes/timeline.h"
#include "quillon-service.h"

using namespace quillon::fakes;

namespace {

constexpr const char* kRaised = "LwipcEventDone(\"/tmp/.fw_service_ready_usb\") = 0";
constexpr const char* kRefused = "LwipcEventDone(\"/tmp/.fw_service_ready_usb\") = -1";
constexpr const char* kSleep = "usleep(10000) = 0";

/// An event mechanism that refuses so many times, each time with that errno.
void refuseEvent(int times, int error)
{
    for (int i = 0; i < times; ++i) {
        platform().lwipcEventDone.thenCall([error](const char*) {
            errno = error;
            return -1;
        });
    }
}

class Readiness : public ::testing::Test
{
protected:
    Readiness()
    {
        setFastSleep(true);
        recordCalls({"usleep"});
    }
    ~Readiness() override { EXPECT_EQ(mismatches(), ""); }
};

struct Retry
{
    int failures;
    int calls;
    int sleeps;
    int result;
};

std::ostream& operator<<(std::ostream& out, const Retry& retry)
{
    return out << retry.failures << " failures";
}

class ReadinessRetries : public Readiness, public ::testing::WithParamInterface<Retry>
{
};

}  // namespace

TEST_F(Readiness, IsAnnouncedByOneEvent)
{
    EXPECT_EQ(set_service_running_done(), 0);

    expectSteps({LogFrom("set_service_running_done", INFO, "control task is ready."), Call(kRaised),
                 LogFrom("set_service_running_done", INFO, "lwipc control is ready.")});
}

TEST_P(ReadinessRetries, FirstRetryComesAtOnceAndEachFurtherOneTenMillisecondsLater)
{
    const Retry& expected = GetParam();
    refuseEvent(expected.failures, EAGAIN);

    EXPECT_EQ(set_service_running_done(), expected.result);

    Steps steps = {Log(INFO, "control task is ready.")};
    int sleeps = 0;
    for (int call = 1; call <= expected.calls; ++call) {
        const bool refused = call <= expected.failures;
        steps.push_back(Call(refused ? kRefused : kRaised));
        if (refused && call > 1) {
            steps.push_back(Call(kSleep));
            ++sleeps;
        }
    }
    ASSERT_EQ(sleeps, expected.sleeps);
    if (expected.result == 0) {
        steps.push_back(Log(INFO, "lwipc control is ready."));
    } else {
        steps.push_back(LogFrom("set_service_running_done", ERROR,
                                "Error: LwipcEventDone /tmp/.fw_service_ready_usb failed: " +
                                    std::string(std::strerror(EAGAIN)) + "\n"));
    }
    expectSteps(steps);
}

INSTANTIATE_TEST_SUITE_P(Failures, ReadinessRetries,
                         ::testing::Values(Retry{0, 1, 0, 0}, Retry{1, 2, 0, 0}, Retry{2, 3, 1, 0},
                                           Retry{58, 59, 57, 0}, Retry{59, 60, 58, 0},
                                           Retry{60, 61, 59, -1}, Retry{61, 61, 60, -1},
                                           Retry{1000, 61, 60, -1}),
                         [](const ::testing::TestParamInfo<Retry>& retry) {
                             return std::to_string(retry.param.failures) + "Failures";
                         });

TEST_F(Readiness, AnyOtherAnswerThanZeroIsARefusal)
{
    platform().lwipcEventDone.then({1, 7});

    EXPECT_EQ(set_service_running_done(), 0);

    expectTexts(callTexts(),
                {"LwipcEventDone(\"/tmp/.fw_service_ready_usb\") = 1",
                 "LwipcEventDone(\"/tmp/.fw_service_ready_usb\") = 7", kSleep, kRaised});
}

TEST_F(Readiness, FailureNamesTheReasonOfTheLastAttempt)
{
    refuseEvent(60, EAGAIN);
    refuseEvent(1, ENOSPC);

    EXPECT_EQ(set_service_running_done(), -1);

    expectTexts(logTexts(), {"control task is ready.",
                             "Error: LwipcEventDone /tmp/.fw_service_ready_usb failed: "
                             "No space left on device\n"});
}
