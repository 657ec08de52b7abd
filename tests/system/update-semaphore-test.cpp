// The update semaphore that a dead control layer has left behind: the others say so, and
// "quillonctl modules unlock" releases it when nobody alive could hold it.

#include <gmock/gmock.h>

#include <fcntl.h>
#include <sched.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>
#include <utility>

#include "base/fd.h"
#include "support/open-way.h"
#include "support/texts.h"
#include "system/control-layer.h"
#include "system/privileged-helper.h"

namespace quillon::test {
namespace {

namespace fs = std::filesystem;

const std::vector<std::string> kUpdateAlpha = {"modules", "update", "alpha", "--source", "system"};
const std::vector<std::string> kUnlock = {"modules", "unlock"};
constexpr const char* kRemedy = "\"quillonctl modules unlock\" releases it\n";

class UpdateSemaphore : public ControlLayer
{
protected:
    void SetUp() override { installWaiting("alpha"); }

    static constexpr uid_t kUser = 1234;

    static bool canBeRunByAnotherUser()
    {
        return asUser(kUser, {kUser}, [] { return 0; }) == 0 && openWayTo(QUILLONCTL_PROGRAM);
    }
};

TEST_F(UpdateSemaphore, OfAKilledControlLayerIsReleasedByUnlockAndWhoWaitsGoesOn)
{
    BackgroundLayer killed(kUpdateAlpha);
    ASSERT_TRUE(isFlashing("alpha"));
    killed.send(SIGKILL);
    EXPECT_EQ(killed.wait(), -SIGKILL);
    ASSERT_EQ(semaphoreValue(), 0);

    goOn();
    BackgroundLayer first(kUpdateAlpha);
    BackgroundLayer second(kUpdateAlpha);
    EXPECT_TRUE(first.says(kRemedy)) << first.output();
    EXPECT_TRUE(second.says(kRemedy)) << second.output();
    const ModulesResult unlock = runModules({"unlock"});

    EXPECT_EQ(unlock.exitCode, 0) << unlock.err;
    EXPECT_EQ(unlock.out, "The update semaphore was left behind and is released\n");
    EXPECT_EQ(first.wait(), 0) << first.output();
    EXPECT_EQ(second.wait(), 0) << second.output();
    EXPECT_EQ(semaphoreValue(), 1);
}

TEST_F(UpdateSemaphore, IsNotReleasedWhileItsHolderLives)
{
    BackgroundLayer layer(kUpdateAlpha);
    ASSERT_TRUE(isFlashing("alpha"));

    const ModulesResult unlock = runModules({"unlock"});

    EXPECT_EQ(unlock.exitCode, 8);
    EXPECT_EQ(unlock.out, "");
    expectText(unlock.err, like("*it may be held by process " + std::to_string(layer.process()) +
                                " (quillonctl modules update "
                                "alpha --source system)\n*"));
    expectText(json({"unlock"}, 8)["text"].asString(),
               like("*process " + std::to_string(layer.process()) + "*"));
    goOn();
    EXPECT_EQ(layer.wait(), 0);
    EXPECT_EQ(semaphoreValue(), 1);
}

TEST_F(UpdateSemaphore, OfAnotherKindOfControlLayerIsNotReleasedWhileThatLives)
{
    goOn();
    sem_t* semaphore = ::sem_open("/SEM_UPDATE_CONTROL", O_CREAT, 0600, 1);
    ASSERT_EQ(::sem_wait(semaphore), 0);
    const std::string self = "may be held by process " + std::to_string(::getpid()) + " (";

    expectText(json({"unlock"}, 8)["text"].asString(), like("*" + std::string(self) + "*"));
    BackgroundLayer layer(kUpdateAlpha);
    EXPECT_TRUE(layer.says("The update semaphore " + self));
    expectNoText(layer.output(), like("*unlock*"));

    ::sem_post(semaphore);
    EXPECT_EQ(layer.wait(), 0);
}

TEST_F(UpdateSemaphore, ThatIsFreeOrWasNeverThereNeedsNoRelease)
{
    goOn();
    EXPECT_EQ(runModules({"unlock"}).out, "Nothing is locked\n");
    EXPECT_EQ(semaphoreValue(), -1) << "it makes none";
    EXPECT_EQ(json({"update", "alpha", "--source", "system"})["exitCode"], 0);

    const Json::Value document = json({"unlock"});
    EXPECT_EQ(document["event"], "modules-unlock");
    EXPECT_EQ(document["released"], false);
    EXPECT_EQ(semaphoreValue(), 1);
}

TEST_F(UpdateSemaphore, IsReleasedOnceHoweverManyReleaseIt)
{
    for (int round = 0; round < 20; ++round) {
        leaveSemaphoreBehind();
        std::vector<std::unique_ptr<CtlProgram>> programs;
        for (int i = 0; i < 4; ++i) {
            programs.push_back(std::make_unique<CtlProgram>(kUnlock));
        }
        int released = 0;
        for (const auto& program : programs) {
            const CtlResult result = program->finish();
            EXPECT_EQ(result.exitCode, 0) << result.err;
            released += result.out != "Nothing is locked\n" ? 1 : 0;
        }
        EXPECT_EQ(released, 1);
        ASSERT_EQ(semaphoreValue(), 1) << "in round " << round;
    }
}

TEST_F(UpdateSemaphore, IsNotReleasedFromWhoHasJustGotIt)
{
    for (int round = 0; round < 5; ++round) {
        leaveSemaphoreBehind();
        fs::remove("/tmp/quillon-test-go");
        fs::remove("/tmp/quillon-test-alpha.log");
        BackgroundLayer layer(kUpdateAlpha);
        ASSERT_TRUE(layer.says("Waiting for another update on this device\n"));
        std::vector<std::unique_ptr<CtlProgram>> programs;
        for (int i = 0; i < 4; ++i) {
            programs.push_back(std::make_unique<CtlProgram>(kUnlock));
        }
        int released = 0;
        for (const auto& program : programs) {
            const CtlResult result = program->finish();
            EXPECT_THAT(result.exitCode, testing::AnyOf(0, 8)) << result.err;
            released += result.out.find("is released") != std::string::npos ? 1 : 0;
        }
        EXPECT_EQ(released, 1);
        ASSERT_TRUE(isFlashing("alpha"));
        EXPECT_EQ(semaphoreValue(), 0);
        goOn();
        EXPECT_EQ(layer.wait(), 0) << layer.output();
        ASSERT_EQ(semaphoreValue(), 1) << "in round " << round;
    }
}

TEST_F(UpdateSemaphore, ThatWasLeftBehindIsToldToProgramsAsWell)
{
    goOn();
    leaveSemaphoreBehind();
    std::vector<std::string> arguments = kUpdateAlpha;
    arguments.insert(arguments.begin(), "--json");
    BackgroundLayer layer(arguments);

    EXPECT_TRUE(
        layer.says(R"({"event":"modules-waiting","holders":[],"remedy":"quillonctl modules )"
                   R"(unlock"})"
                   "\n"))
        << layer.output();
    EXPECT_EQ(json({"unlock"})["released"], true);
    EXPECT_EQ(layer.wait(), 0);
}

TEST_F(UpdateSemaphore, IsNotReleasedByWhoCannotSeeEverybody)
{
    if (!canBeRunByAnotherUser()) {
        GTEST_SKIP() << "here no other user can start the program";
    }
    asUser(kUser, {kUser}, [] {
        leaveSemaphoreBehind();
        return 0;
    });

    const int asOrdinaryUser = asUser(kUser, {kUser}, [] {
        const ModulesResult unlock = runModules({"unlock"});
        expectText(unlock.err, like("*cannot be told by this user; root can release it*"));
        return HasFailure() ? 255 : unlock.exitCode;
    });

    EXPECT_EQ(asOrdinaryUser, 9);
    EXPECT_EQ(semaphoreValue(), 0);
    fs::create_directories("/var/lib/quillon/secure-storage");
    ASSERT_EQ(::chown("/var/lib/quillon/secure-storage", kUser, kUser), 0);
    EXPECT_EQ(json({"unlock"})["released"], true) << "root can, where it is the service's user's";
    EXPECT_EQ(semaphoreValue(), 1);
}

/// Locks bytes of the semaphore's file, as other control layers do.
class OthersLock
{
public:
    explicit OthersLock(off_t from, off_t length, short type = F_RDLCK)
    {
        struct flock lock = {};
        lock.l_type = type;
        lock.l_start = from;
        lock.l_len = length;
        EXPECT_EQ(::fcntl(file_.get(), F_OFD_SETLK, &lock), 0);
    }

private:
    UniqueFd file_{::open("/dev/shm/sem.SEM_UPDATE_CONTROL", O_RDWR | O_CLOEXEC)};
};

TEST_F(UpdateSemaphore, IsNotReleasedWhileAnotherContainersProcessHasTheHoldersNumber)
{
    goOn();
    ASSERT_EQ(runModules({"update", "alpha", "--source", "system"}).exitCode, 0);
    fs::remove("/tmp/quillon-test-go");
    fs::remove("/tmp/quillon-test-alpha.log");
    const OthersLock allNumbers(3, 0);
    BackgroundLayer layer(kUpdateAlpha);
    ASSERT_TRUE(isFlashing("alpha"));

    const ModulesResult unlock = runModules({"unlock"});

    EXPECT_EQ(unlock.exitCode, 8);
    expectText(unlock.err, like("*it may be held by a quillonctl whose process number is*"));
    goOn();
    EXPECT_EQ(layer.wait(), 0);
    EXPECT_EQ(semaphoreValue(), 1);
}

TEST_F(UpdateSemaphore, IsFreeAfterAModuleHasEndedTheProgramThoughAProcessOfItGoesOn)
{
    for (const auto& [way, code] : {std::pair{"_exit", 6}, {"crash", -SIGABRT}}) {
        installGuided("alpha", std::string("stay-in-doUpdate ") + way + "-in-doUpdate");
        installGuided("beta", "");
        BackgroundLayer ended(kUpdateAlpha);
        ASSERT_EQ(ended.wait(), code) << ended.output();

        BackgroundLayer next({"modules", "update", "beta", "--source", "system"});

        EXPECT_TRUE(next.says("  updated\n")) << next.output();
        EXPECT_EQ(runModules({"unlock"}).out, "Nothing is locked\n");
    }
    goOn();
}

TEST_F(UpdateSemaphore, IsNotCalledFreeWhileSomebodyKeepsItsLock)
{
    goOn();
    ASSERT_EQ(runModules({"update", "alpha", "--source", "system"}).exitCode, 0);
    const OthersLock holders(2, 1, F_WRLCK);

    expectText(json({"unlock"}, 8)["text"].asString(), like("*it may be held by a quillonctl*"));
    EXPECT_EQ(semaphoreValue(), 1);
}

TEST_F(UpdateSemaphore, IsNotSaidToBeHeldByAStrangerWhoHasTheHoldersNumber)
{
    goOn();
    ASSERT_EQ(runModules({"update", "alpha", "--source", "system"}).exitCode, 0);
    const OthersLock held(2, 1, F_WRLCK);
    const OthersLock number(2 + ::getpid(), 1, F_WRLCK);

    const std::string text = json({"unlock"}, 8)["text"].asString();

    expectText(text, like("*held by a quillonctl whose process number is not known*"));
    expectNoText(text, like("*process " + std::to_string(::getpid()) + "*"));
}

TEST_F(UpdateSemaphore, IsWaitedForAgainAfterAModuleHasClosedAllFiles)
{
    installGuided("alpha", "close-in-doUpdate");
    installGuided("beta", "close-in-doUpdate");
    BackgroundLayer layer({"modules", "update", "--all", "--source", "system"});

    ASSERT_TRUE(layer.says("beta   2.0      updated")) << layer.output();
    EXPECT_EQ(layer.wait(), 0);
    EXPECT_EQ(semaphoreValue(), 1);
}

TEST_F(UpdateSemaphore, ThatIsRefusedAfterAModuleHasClosedAllFilesLetsNoOtherUpdateBegin)
{
    for (const char* name : {"alpha", "beta"}) {
        installGuided(name, "wait-in-doUpdate close-in-doUpdate");
    }
    for (const char* option : {"--quiet", "--json"}) {
        for (const char* file : {"go", "alpha.log", "beta.log"}) {
            fs::remove(std::string("/tmp/quillon-test-") + file);
        }
        BackgroundLayer layer({option, "modules", "update", "--all", "--source", "system"});
        ASSERT_TRUE(eventually(
            [] { return wasAsked("alpha", "doUpdate(") || wasAsked("beta", "doUpdate("); }));
        fs::create_hard_link("/dev/shm/sem.SEM_UPDATE_CONTROL", "/dev/shm/second");
        goOn();

        EXPECT_EQ(layer.wait(), 9) << layer.output();
        expectText(layer.output(), like("*file cannot be locked any more: *"));
        expectText(layer.output(), like("*; a module may have closed it*"));
        EXPECT_NE(wasAsked("alpha", "doUpdate("), wasAsked("beta", "doUpdate("));
        fs::remove("/dev/shm/second");
        EXPECT_EQ(semaphoreValue(), 1);
    }
}

/// Another process, which takes the semaphore where it has gone to.
class OtherHolder
{
public:
    /// @param goThere  called in the process; returns whether it holds the semaphore there
    template <typename GoThere>
    explicit OtherHolder(GoThere goThere)
    {
        int ready[2] = {-1, -1};
        EXPECT_EQ(::pipe2(ready, O_CLOEXEC), 0);
        pid_ = ::fork();
        if (pid_ == 0) {
            const char isThere = goThere() ? 'y' : 'n';
            static_cast<void>(!::write(ready[1], &isThere, 1));
            for (;;) {
                ::pause();
            }
        }
        const UniqueFd end(ready[0]);
        ::close(ready[1]);
        char isThere = 'n';
        isThere_ = ::read(end.get(), &isThere, 1) == 1 && isThere == 'y';
    }
    ~OtherHolder()
    {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    OtherHolder(const OtherHolder&) = delete;
    OtherHolder& operator=(const OtherHolder&) = delete;

    bool isThere() const { return isThere_; }
    pid_t process() const { return pid_; }

    static bool take()
    {
        sem_t* semaphore = ::sem_open("/SEM_UPDATE_CONTROL", O_CREAT, 0600, 1);
        return semaphore != SEM_FAILED && ::sem_wait(semaphore) == 0;
    }

private:
    pid_t pid_ = -1;
    bool isThere_ = false;
};

TEST_F(UpdateSemaphore, IsNotSaidToBeLeftBehindByWhoHasReleasedItAndEnded)
{
    auto holder = std::make_unique<OtherHolder>(OtherHolder::take);
    ASSERT_TRUE(holder->isThere());
    BackgroundLayer layer({"modules", "update", "alpha"});
    ASSERT_TRUE(layer.says("The update semaphore may be held by "));
    // It sleeps between a try and a look. Stopped there, it finds the time for a look come.
    layer.send(SIGSTOP);
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    sem_t* semaphore = ::sem_open("/SEM_UPDATE_CONTROL", 0);
    ASSERT_NE(semaphore, SEM_FAILED);
    ::sem_post(semaphore);
    ::sem_close(semaphore);
    holder.reset();
    layer.send(SIGCONT);

    EXPECT_EQ(layer.wait(), 7) << layer.output();
    expectNoText(layer.output(), like("*Nobody is alive*"));
}

TEST_F(UpdateSemaphore, IsNotReleasedFromAHolderThatHasAnotherRoot)
{
    const auto inAnotherRoot = [] {
        return OtherHolder::take() && ::chroot("/var/tmp") == 0 && ::chdir("/") == 0;
    };
    {
        const OtherHolder holder(inAnotherRoot);
        if (!holder.isThere()) {
            GTEST_SKIP() << "here nobody can change its root";
        }
        expectText(json({"unlock"}, 8)["text"].asString(),
                   like("*process " + std::to_string(holder.process()) + " (*"));
    }
    EXPECT_EQ(json({"unlock"})["released"], true);
}

// The mappings of a stranger may be many, and take long to look at.
TEST_F(UpdateSemaphore, IsReleasedWithoutALookAtProcessesThatMayNotOpenIt)
{
    const OtherHolder stranger([] {
        return OtherHolder::take() && ::setgid(kUser) == 0 && ::setuid(kUser) == 0 &&
               ::prctl(PR_SET_DUMPABLE, 1) == 0;
    });
    if (!stranger.isThere()) {
        GTEST_SKIP() << "here nobody can become another user";
    }
    EXPECT_EQ(json({"unlock"})["released"], true);
}

TEST_F(UpdateSemaphore, IsReleasedWhileAnotherContainersSemaphoreIsHeld)
{
    leaveSemaphoreBehind();
    const OtherHolder holder([] {
        return ::unshare(CLONE_NEWNS) == 0 &&
               ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
               ::mount("none", "/dev/shm", "tmpfs", 0, nullptr) == 0 && OtherHolder::take();
    });
    if (!holder.isThere()) {
        GTEST_SKIP() << "here nobody can have a /dev/shm of its own";
    }

    EXPECT_EQ(json({"unlock"})["released"], true);
    EXPECT_EQ(semaphoreValue(), 1);
}

TEST_F(UpdateSemaphore, IsNotReleasedPastAStoppedWaiterWhichIsNamed)
{
    leaveSemaphoreBehind();
    BackgroundLayer stopped(kUpdateAlpha);
    ASSERT_TRUE(stopped.says(kRemedy));
    const OthersLock gate(1, 1);
    stopped.send(SIGSTOP);
    const std::string who = ": process " + std::to_string(stopped.process()) + " (quillonctl ";

    expectText(json({"unlock"}, 8)["text"].asString(), like("*end it first" + who + "*"));
    BackgroundLayer other(kUpdateAlpha);
    EXPECT_TRUE(other.says("let it go on or end it" + who)) << other.output();
}

TEST_F(UpdateSemaphore, IsRefusedWhereItsFileIsNotWhatTheLibraryMakes)
{
    constexpr const char* kFile = "/dev/shm/sem.SEM_UPDATE_CONTROL";
    constexpr uid_t kStranger = 1234;
    const auto isRefused = [](const std::string& fault) {
        for (const auto& verb : {kUnlock, kUpdateAlpha}) {
            const ModulesResult result = runModules({verb.begin() + 1, verb.end()});
            EXPECT_EQ(result.exitCode, 9);
            expectText(result.err, like("*" + fault + "; root can remove it*"));
        }
    };

    std::ofstream{kFile} << "xx";
    isRefused("has the wrong size");
    fs::remove(kFile);
    leaveSemaphoreBehind();
    fs::create_hard_link(kFile, "/dev/shm/second");
    isRefused("has a second name");
    fs::remove("/dev/shm/second");
    if (::chown(kFile, kStranger, kStranger) == 0) {
        isRefused("belongs to user 1234");
    }
    fs::remove(kFile);
    fs::create_directory(kFile);
    isRefused("is no plain file");
}

TEST_F(UpdateSemaphore, OfAnotherUserIsLeftAlone)
{
    if (!canBeRunByAnotherUser()) {
        GTEST_SKIP() << "here no other user can start the program";
    }
    leaveSemaphoreBehind();

    EXPECT_EQ(asUser(kUser, {kUser}, [] { return runModules({"unlock"}).exitCode; }), 9);
    EXPECT_EQ(semaphoreValue(), 0);
}

}  // namespace
}  // namespace quillon::test
