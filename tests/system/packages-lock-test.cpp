// One control layer at a time is at the packages: the others wait for it or refuse, and say who it
// is.

#include <fcntl.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <optional>

#include "base/fd.h"
#include "support/open-way.h"
#include "support/texts.h"
#include "system/control-layer.h"
#include "system/packaged-modules.h"
#include "unit/tools/ctl-program.h"

namespace quillon::test {
namespace {

namespace fs = std::filesystem;

const std::vector<std::string> kCheck = {"modules", "check"};
const std::vector<std::string> kUpdateAlpha = {"modules", "update", "alpha"};
constexpr const char* kSemaphoreFile = "/dev/shm/sem.SEM_UPDATE_CONTROL";
constexpr const char* kWhatItDoes = "checks them or updates from them";
constexpr const char* kThatItIsStopped = "is stopped: let it go on or end it";

class PackagesLockOfModules : public PackagedModules
{
protected:
    void SetUp() override
    {
        PackagedModules::SetUp();
        if (!IsSkipped()) {
            addModule("alpha", "", GUIDED_MODULE);
            makeSemaphore();
        }
    }

    static void makeSemaphore()
    {
        sem_t* semaphore = ::sem_open("/SEM_UPDATE_CONTROL", O_CREAT, 0600, 1);
        ASSERT_NE(semaphore, SEM_FAILED);
        ::sem_close(semaphore);
    }

    static void goOn() { writeFile("/tmp/quillon-test-go", ""); }

    /// Waits until a module is asked.
    static bool isAsked(const std::string& call, const std::string& module = "alpha")
    {
        return eventually([&] { return wasAsked(module, call + "("); });
    }

    static void forgetWhatWasAsked() { fs::remove("/tmp/quillon-test-alpha.log"); }

    static std::string inUseBy(pid_t process, const std::string& command, const std::string& what)
    {
        return "the packages are in use by process " + std::to_string(process) + " (" + command +
               "), which " + what;
    }
};

TEST_F(PackagesLockOfModules, LetsAnUpdateWaitWhoeverMakesTheSemaphoreDuringACheck)
{
    for (const bool isReplaced : {false, true}) {
        if (!isReplaced) {
            fs::remove(kSemaphoreFile);
        }
        set("alpha", "wait-in-checkVersion");
        BackgroundLayer check(kCheck);
        ASSERT_TRUE(isAsked("checkVersion"));
        if (isReplaced) {
            fs::remove(kSemaphoreFile);
            makeSemaphore();
        }
        set("alpha", "");

        BackgroundLayer update(kUpdateAlpha);

        EXPECT_TRUE(update.says(
            "Waiting: " + inUseBy(check.process(), "quillonctl modules check", kWhatItDoes) +
            "; the update begins after it\n"))
            << update.output();
        expectNoText(update.output(), like("*semaphore*"));
        EXPECT_EQ(mountedPackages().size(), 1U);
        goOn();
        EXPECT_EQ(check.wait(), 0) << check.output();
        EXPECT_EQ(update.wait(), 0) << update.output();
        expectTexts(mountedPackages(), {});

        fs::remove("/tmp/quillon-test-go");
        forgetWhatWasAsked();
        addPackage("alpha");
    }
}

TEST_F(PackagesLockOfModules, KeepsACheckAwayFromAnotherOneWhichIsNamed)
{
    set("alpha", "hang-in-checkVersion");
    BackgroundLayer first(kCheck);
    ASSERT_TRUE(isAsked("checkVersion"));
    const std::string who = "quillonctl modules check";

    expectText(modulesDocument({"check"}, 8)["text"].asString(),
               like(inUseBy(first.process(), who, kWhatItDoes) + "; repeat the command after it"));
    EXPECT_EQ(mountedPackages().size(), 1U);

    first.send(SIGSTOP);
    ASSERT_TRUE(eventually([&] {
        return modulesDocument({"check"}, 8)["text"] ==
               inUseBy(first.process(), who, kThatItIsStopped) + "; repeat the command after it";
    }));
    const BackgroundLayer update(kUpdateAlpha);
    EXPECT_TRUE(update.says("Waiting: " + inUseBy(first.process(), who, kThatItIsStopped) +
                            "; the update begins after it\n"))
        << update.output();
    first.send(SIGCONT);
    first.send(SIGINT);
    EXPECT_EQ(first.wait(), 130);
}

TEST_F(PackagesLockOfModules, IsForWhoCanHavePackagesMountedAndNotOpenTheSemaphore)
{
    constexpr uid_t kUser = 1234;
    constexpr gid_t kGroup = 2345;
    if (asUser(kUser, {kGroup}, [] { return 0; }) != 0 || !openWayTo(QUILLONCTL_PROGRAM)) {
        GTEST_SKIP() << "here no other user can start the program";
    }
    ASSERT_NO_FATAL_FAILURE(letIn(kGroup));
    set("alpha", "wait-in-doUpdate");
    BackgroundLayer update(kUpdateAlpha);
    ASSERT_TRUE(isAsked("doUpdate"));

    const int asMember = asUser(kUser, {kGroup}, [&] {
        const ModulesResult check = runModules({"check"});
        expectText(check.err, like("quillonctl: the packages are in use by process " +
                                   std::to_string(update.process()) + " (*"));
        return HasFailure() ? 255 : check.exitCode;
    });
    const int asStranger = asUser(kUser, {kUser}, [&] {
        const ModulesResult check = runModules({"check"});
        expectText(check.err, like("quillonctl: the packages cannot be locked: *: Permission "
                                   "denied; repeat the command as root\n"));
        return HasFailure() ? 255 : check.exitCode;
    });

    EXPECT_EQ(asMember, 8);
    EXPECT_EQ(asStranger, 9);
    EXPECT_EQ(mountedPackages().size(), 1U);
    goOn();
    EXPECT_EQ(update.wait(), 0) << update.output();
}

TEST_F(PackagesLockOfModules, EndsWithTheProgramThoughAProcessOfAModuleGoesOn)
{
    struct Case
    {
        std::vector<std::string> command;
        const char* settings;
        bool isKilled;
    };
    for (const Case& one : {Case{kUpdateAlpha, "stay-in-doUpdate", false},
                            Case{kCheck, "stay-in-checkVersion", false},
                            Case{kCheck, "stay-in-checkVersion hang-in-checkVersion", true}}) {
        set("alpha", one.settings);
        BackgroundLayer first(one.command);
        if (one.isKilled) {
            ASSERT_TRUE(isAsked("checkVersion"));
            first.send(SIGKILL);
        }
        EXPECT_EQ(first.wait(), one.isKilled ? -SIGKILL : 0) << first.output();
        set("alpha", "");
        addPackage("alpha");

        BackgroundLayer next(kUpdateAlpha);

        EXPECT_TRUE(next.says("updated")) << one.settings << ": " << next.output();
        expectNoText(next.output(), like("*Waiting*"));
        addPackage("alpha");
        forgetWhatWasAsked();
    }
    goOn();
}

TEST_F(PackagesLockOfModules, EndsWithTheWorkThoughNobodyReadsTheResult)
{
    for (const std::vector<std::string>& command : {kCheck, kUpdateAlpha}) {
        const UnreadCtl unread(command);
        ASSERT_TRUE(isAsked(command == kCheck ? "checkVersion" : "doUpdate"));

        const BackgroundLayer update(kUpdateAlpha);

        EXPECT_TRUE(update.says("alpha  ")) << update.output();
        EXPECT_TRUE(unread.isAlive());
        forgetWhatWasAsked();
        addPackage("alpha");
    }
}

TEST_F(PackagesLockOfModules, EndsWithACrashAndNamesTheWayToWhoeverHasItStill)
{
    set("alpha", "stray-in-doUpdate crash-in-doUpdate");
    BackgroundLayer crashing(kUpdateAlpha);
    EXPECT_LT(crashing.wait(), 0) << crashing.output();
    addPackage("alpha");
    set("alpha", "");
    EXPECT_EQ(modulesDocument({"check"})["modules"].size(), 1U);

    const pid_t locking = ::fork();
    if (locking == 0) {
        const UniqueFd directory(::open(kMountDirectory, O_RDONLY));
        ::flock(directory.get(), LOCK_EX);
        ::_exit(::fork() == 0 ? ::pause() : 0);
    }
    ASSERT_EQ(::waitpid(locking, nullptr, 0), locking);

    EXPECT_EQ(modulesDocument({"check"}, 8)["text"],
              "the packages are locked by a process that has ended or is not seen here; root "
              "learns who has taken over its lock from: fuser -v " +
                  std::string(kMountDirectory) + "; repeat the command after it");
    goOn();
}

TEST_F(PackagesLockOfModules, IsTakenAgainAfterAModuleHasClosedAllFiles)
{
    addModule("beta", "close-in-doUpdate wait-in-doUpdate", GUIDED_MODULE);
    set("alpha", "close-in-doUpdate wait-in-doUpdate");
    for (const bool isFree : {false, true}) {
        BackgroundLayer update({"modules", "update", "--all"});
        ASSERT_TRUE(eventually(
            [] { return wasAsked("alpha", "doUpdate(") || wasAsked("beta", "doUpdate("); }));
        std::optional<UniqueFd> directory(::open(kMountDirectory, O_RDONLY | O_CLOEXEC));
        ASSERT_TRUE(eventually([&] { return ::flock(directory->get(), LOCK_EX | LOCK_NB) == 0; }));
        if (isFree) {
            directory.reset();
        }
        goOn();

        EXPECT_EQ(update.wait(), isFree ? 0 : 9) << update.output();

        const bool isBothAsked = wasAsked("alpha", "doUpdate(") && wasAsked("beta", "doUpdate(");
        EXPECT_EQ(isBothAsked, isFree);
        if (!isFree) {
            expectText(update.output(),
                       like("*the packages are in use by process " + std::to_string(::getpid()) +
                            " (*; a module has closed the file by which *"));
        }
        for (const char* file : {"go", "alpha.log", "beta.log"}) {
            fs::remove(std::string("/tmp/quillon-test-") + file);
        }
        addPackage("alpha");
        addPackage("beta");
    }
}

TEST_F(PackagesLockOfModules, LetsAProgramThatAModuleEndsLeaveThePackagesOfOthersMounted)
{
    set("alpha", "hang-in-checkVersion");
    BackgroundLayer check(kCheck);
    ASSERT_TRUE(isAsked("checkVersion"));
    set("alpha", "exit-beside-in-load");
    BackgroundLayer update(kUpdateAlpha);
    ASSERT_TRUE(update.says("Waiting")) << update.output();

    goOn();

    EXPECT_EQ(update.wait(), 6) << update.output();
    EXPECT_EQ(mountedPackages().size(), 1U);
    check.send(SIGINT);
    EXPECT_EQ(check.wait(), 130);
    expectTexts(mountedPackages(), {});
}

}  // namespace
}  // namespace quillon::test
