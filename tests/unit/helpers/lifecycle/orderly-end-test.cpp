#include "helpers/lifecycle/orderly-end.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <mqueue.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>

#include "helpers/lifecycle/own-queues.h"
#include "support/files.h"
#include "support/texts.h"
#include "support/wait.h"
#include "unit/platform/notify-socket.h"

namespace {

using quillon::test::expectTextAmong;
using quillon::test::expectTexts;
using quillon::test::waitFor;
using quillon::test::writeFile;

using namespace std::chrono_literals;
using quillon::unit::endAndWait;

constexpr char kMarker[] = "/tmp/fw_update_ready_usb";
constexpr char kRecord[] = "/run/quillon/run/start.jsonl";

bool isMarked()
{
    struct stat status = {};
    return stat(kMarker, &status) == 0;
}

/// Stands for the daemon: a process of its own with something to do.
class Process
{
public:
    explicit Process(const std::function<void()>& work) : id_(fork())
    {
        if (id_ == 0) {
            work();
            _exit(0);
        }
    }
    ~Process()
    {
        kill(id_, SIGKILL);
        waitpid(id_, nullptr, 0);
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    pid_t id() const { return id_; }

    /// Whether it has ended by itself with status 0.
    bool hasEnded() const
    {
        siginfo_t info = {};
        return waitid(P_PID, static_cast<id_t>(id_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
               info.si_pid == id_ && info.si_code == CLD_EXITED && info.si_status == 0;
    }

private:
    pid_t id_;
};

void waitForTheMarkerToGo()
{
    waitFor("the marker's end", [] { return !isMarked(); });
}

void waitForThreads(pid_t process, std::ptrdiff_t count)
{
    const std::string threads = "/proc/" + std::to_string(process) + "/task";
    waitFor("the threads", [&] {
        return std::distance(std::filesystem::directory_iterator(threads), {}) >= count;
    });
}

class OrderlyEnd : public testing::Test
{
protected:
    OrderlyEnd() { std::ofstream{kMarker}; }
};

TEST_F(OrderlyEnd, TakesTheMarkerAwayAndWaitsUntilTheServiceHasEnded)
{
    const Process service([] {
        waitForTheMarkerToGo();
        std::this_thread::sleep_for(700ms);
    });

    endAndWait(kMarker, service.id());

    EXPECT_TRUE(service.hasEnded());
    EXPECT_FALSE(isMarked());
}

TEST_F(OrderlyEnd, KeepsOthersFromMakingTheMarkerAnew)
{
    const Process service([] {
        waitForTheMarkerToGo();
        const int made = open(kMarker, O_WRONLY | O_CREAT | O_EXCL, 0600);
        _exit(made == -1 ? 0 : 1);
    });

    endAndWait(kMarker, service.id());

    EXPECT_TRUE(service.hasEnded());
}

TEST_F(OrderlyEnd, LetsAStoppedServiceGoOn)
{
    const Process service([] {
        raise(SIGSTOP);
        waitForTheMarkerToGo();
    });
    siginfo_t info = {};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(service.id()), &info, WSTOPPED | WNOWAIT), 0);

    endAndWait(kMarker, service.id());

    EXPECT_TRUE(service.hasEnded());
}

TEST_F(OrderlyEnd, OfAServiceThatIsGoneTakesNoTime)
{
    pid_t gone = 0;
    {
        const Process service([] {});
        gone = service.id();
    }

    endAndWait(kMarker, gone);

    EXPECT_FALSE(isMarked());
}

TEST_F(OrderlyEnd, OfAServiceThatHasEndedByItselfLeavesTheMarkerAsItIs)
{
    endAndWait(kMarker, 0);

    EXPECT_TRUE(isMarked());
}

TEST_F(OrderlyEnd, ThrowsRepliesAwayThatNobodyReads)
{
    quillon::unit::provideQueues(quillon::unit::openQueues(geteuid(), getegid()));
    const Process service([] {
        const mqd_t replies = mq_open("/fwupdatecontrol_usb", O_RDWR);
        const char record[284] = {};
        for (int i = 0; i < 11; ++i) {
            mq_send(replies, record, sizeof record, 0);  // the last one waits
        }
    });

    endAndWait(kMarker, service.id());

    EXPECT_TRUE(service.hasEnded());
}

/// Notes that the service has begun to serve, so many seconds from now.
void recordServing(int fromNow)
{
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    writeFile(kRecord, "{\"clock\":1.5,\"event\":\"began\"}\n{\"clock\":" +
                           std::to_string(now.tv_sec + fromNow) +
                           ".25,\"event\":\"serving\",\"key\":true}\n");
}

TEST_F(OrderlyEnd, TellsTheWatchdogThatAnEndingServiceIsAlive)
{
    for (const bool isRecorded : {false, true}) {
        std::ofstream{kMarker};
        NotifySocket manager("/tmp/notify" + std::to_string(isRecorded));
        const Process service([] {
            std::thread eventLoop(waitForTheMarkerToGo);
            eventLoop.join();
            std::this_thread::sleep_for(1500ms);
        });
        waitForThreads(service.id(), 2);
        if (isRecorded) {
            recordServing(1);
        }

        endAndWait(kMarker, service.id());

        expectTextAmong(manager.received(), "WATCHDOG=1");
        ASSERT_EQ(std::remove(kMarker), 0);
    }
}

TEST_F(OrderlyEnd, LeavesAServiceThatHangsToTheWatchdog)
{
    NotifySocket manager("/tmp/notify");
    const Process service([] { std::this_thread::sleep_for(1500ms); });

    endAndWait(kMarker, service.id());

    expectTexts(manager.received(), {});
}

int countOf(NotifySocket& manager)
{
    return static_cast<int>(manager.received().size());
}

TEST_F(OrderlyEnd, LeavesAServiceThatNeverEndsToTheWatchdogAfterAWhile)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP()
        << "the sanitizer has a thread of its own in the service, which counts as an update";
#endif
    NotifySocket manager("/tmp/notify");
    const Process service([] {
        std::thread eventLoop(waitForTheMarkerToGo);
        std::thread deafControlTask([] { std::this_thread::sleep_for(4s); });
        eventLoop.join();
        deafControlTask.join();
    });
    waitForThreads(service.id(), 3);

    endAndWait(kMarker, service.id(), 500ms);

    EXPECT_TRUE(service.hasEnded());
    EXPECT_LE(countOf(manager), 3) << "and not up to its end";
}

/// Ends a service whose update goes on until the watchdog has been told of it three times.
/// @param older  runs as long as the service, in a thread that it starts before all others
void expectToldOfTheUpdate(const std::function<void()>& older)
{
    NotifySocket manager("/tmp/notify");
    constexpr char kUpdated[] = "/tmp/updated";
    const Process service([&] {
        std::thread(older).detach();
        std::thread eventLoop(waitForTheMarkerToGo);
        std::thread update([&] {
            while (access(kUpdated, F_OK) != 0) {
                usleep(10000);
            }
        });
        std::thread controlTask([&] { update.join(); });
        eventLoop.join();
        controlTask.join();
        _exit(0);
    });
    waitForThreads(service.id(), 4);
    std::thread watchdog([&] {
        for (int told = 0; told < 3; told += countOf(manager)) {
            usleep(10000);
        }
        std::ofstream{kUpdated};
    });

    endAndWait(kMarker, service.id(), 0ms);

    watchdog.join();
    EXPECT_TRUE(service.hasEnded());
}

TEST_F(OrderlyEnd, TellsTheWatchdogAsLongAsAnUpdateRuns)
{
    expectToldOfTheUpdate([] {});
}

TEST_F(OrderlyEnd, TellsTheWatchdogOfAnUpdateBesideAModulesOlderThread)
{
    expectToldOfTheUpdate([] { pause(); });
}

TEST_F(OrderlyEnd, OfAServiceThatHangsIsNotTakenFromTheEndOfAnEstimate)
{
    NotifySocket manager("/tmp/notify");
    recordServing(-10);
    const Process service([] {
        std::thread estimate(waitForTheMarkerToGo);
        std::thread eventLoop([] { std::this_thread::sleep_for(2s); });
        estimate.join();
        eventLoop.join();
    });
    waitForThreads(service.id(), 3);

    endAndWait(kMarker, service.id());

    expectTexts(manager.received(), {});
}

TEST_F(OrderlyEnd, WaitsForNothingThatIsInTheRecordsPlace)
{
    std::filesystem::create_directories("/run/quillon/run");
    const auto endOne = [] {
        std::ofstream{kMarker};
        const Process service(waitForTheMarkerToGo);
        endAndWait(kMarker, service.id());
        EXPECT_TRUE(service.hasEnded());
        ASSERT_EQ(std::remove(kMarker), 0);
    };
    ASSERT_EQ(mkfifo(kRecord, 0644), 0);
    endOne();
    std::filesystem::remove(kRecord);
    std::filesystem::create_symlink("/dev/zero", kRecord);
    endOne();
}

}  // namespace
