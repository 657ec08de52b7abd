// What signals do to a control layer that checks, waits and flashes.

#include <fcntl.h>
#include <semaphore.h>
#include <signal.h>

#include <filesystem>
#include <fstream>
#include <map>

#include "support/sanitizers.h"
#include "support/texts.h"
#include "system/control-layer.h"

namespace quillon::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* kAnswer = "Only SIGKILL ends it at once.";
const std::vector<std::string> kUpdateAlpha = {"modules", "update", "alpha", "--source", "system"};
const std::vector<std::string> kUpdateAll = {"modules", "update", "--all", "--source", "system"};

class HeldOffSignals : public ControlLayer
{
protected:
    static bool hasEnded(const std::string& name) { return wasAsked(name, "allUpdateDone("); }

    /// Waits until so many requests have been answered with what becomes of them. One that is
    /// taken only after the update would end the program.
    static bool hasAnswered(const BackgroundLayer& layer, int requests)
    {
        return eventually([&] {
            const std::string text = layer.output();
            int answers = 0;
            for (std::size_t at = text.find(kAnswer); at != std::string::npos;
                 at = text.find(kAnswer, at + 1)) {
                ++answers;
            }
            return answers == requests;
        });
    }
};

TEST_F(HeldOffSignals, DoNotEndAnUpdate)
{
    installWaiting("alpha");
    BackgroundLayer layer(kUpdateAlpha);
    ASSERT_TRUE(isFlashing("alpha"));

    int answers = 0;
    for (const int signal : {SIGINT, SIGINT, SIGTERM, SIGTERM, SIGQUIT}) {
        layer.send(signal);
        ASSERT_TRUE(hasAnswered(layer, ++answers));
    }
    for (const int signal : {SIGHUP, SIGPIPE, SIGUSR1, SIGUSR2, SIGALRM, SIGVTALRM, SIGPROF, SIGIO,
                             SIGXCPU, SIGXFSZ, SIGTSTP, SIGTTIN, SIGTTOU, SIGRTMIN, SIGRTMAX}) {
        layer.send(signal);
    }
    goOn();

    EXPECT_EQ(layer.wait(), 0) << layer.output();
    expectText(layer.output(), like("*alpha  2.0      updated\n*"));
    EXPECT_EQ(semaphoreValue(), 1);
}

TEST_F(HeldOffSignals, DoNotEndAnUpdateThoughTheModuleHasResetThemBefore)
{
    installGuided("alpha", "default-in-load wait-in-doUpdate");
    BackgroundLayer layer(kUpdateAlpha);
    ASSERT_TRUE(isFlashing("alpha"));

    layer.send(SIGTERM);
    ASSERT_TRUE(hasAnswered(layer, 1)) << layer.output();
    goOn();

    EXPECT_EQ(layer.wait(), 0) << layer.output();
}

TEST_F(HeldOffSignals, OfTheTerminalDoNotEndTheProgramThatAModuleUpdatesWith)
{
    installGuided("alpha", "tool-in-doUpdate");
    BackgroundLayer layer(kUpdateAlpha);
    ASSERT_TRUE(isFlashing("alpha"));

    layer.sendToAll(SIGINT);
    ASSERT_TRUE(hasAnswered(layer, 1));
    layer.sendToAll(SIGQUIT);
    ASSERT_TRUE(hasAnswered(layer, 2));
    layer.sendToAll(SIGHUP);
    goOn();

    EXPECT_EQ(layer.wait(), 0) << layer.output();
    int status = -1;
    std::ifstream("/tmp/quillon-test-child") >> status;
    EXPECT_EQ(status, 0) << "how the program ended";
}

/// @param  when the module has started a thread of its own
class HeldOffSignalsBesideAThread : public HeldOffSignals,
                                    public testing::WithParamInterface<const char*>
{
};

TEST_P(HeldOffSignalsBesideAThread, LetTheUpdateEndAndBeginNoOther)
{
    for (const char* name : {"alpha", "beta"}) {
        installGuided(name, std::string(GetParam()) + " wait-in-doUpdate");
    }
    for (const int signal : {SIGINT, SIGQUIT}) {
        fs::remove("/tmp/quillon-test-go");
        BackgroundLayer layer(kUpdateAll);
        ASSERT_TRUE(layer.says("%")) << layer.output();

        layer.send(signal);
        ASSERT_TRUE(layer.says("no other one is begun after it")) << layer.output();
        goOn();

        EXPECT_EQ(layer.wait(), 130);
        expectText(layer.output(), like("*  updated\n*"));
        expectText(layer.output(), like("*  not begun: interrupted\n*"));
    }
}

INSTANTIATE_TEST_SUITE_P(Moment, HeldOffSignalsBesideAThread,
                         testing::Values("thread-in-load", "thread-in-setContext",
                                         "thread-in-checkVersion"));

TEST_F(HeldOffSignals, EndTheProgramWhileAModuleIsLoadedForEver)
{
    installGuided("alpha", "wait-in-load");
    for (const int signal : {SIGINT, SIGQUIT}) {
        fs::remove("/tmp/quillon-test-alpha.log");
        BackgroundLayer layer(kUpdateAlpha);
        ASSERT_TRUE(eventually([] { return wasAsked("alpha", "load("); }));

        layer.send(signal);

        EXPECT_EQ(layer.wait(), 130);
        expectText(layer.output(), like("*quillonctl: interrupted; nothing was updated\n*"));
    }
}

TEST_F(HeldOffSignals, EndEveryVerbThoughAModuleHasBlockedThemAndIsLoadedForEver)
{
    installGuided("alpha", "block-in-load wait-in-load");
    for (const std::vector<std::string>& verb : {std::vector<std::string>{"list"},
                                                 {"check"},
                                                 {"version", "alpha"},
                                                 {"progress", "alpha"},
                                                 {"download"},
                                                 {"update", "--all"}}) {
        for (const int signal : {SIGINT, SIGQUIT, SIGTERM, SIGHUP}) {
            fs::remove("/tmp/quillon-test-alpha.log");
            std::vector<std::string> arguments = {"modules"};
            arguments.insert(arguments.end(), verb.begin(), verb.end());
            BackgroundLayer layer(arguments);
            ASSERT_TRUE(eventually([] { return wasAsked("alpha", "load("); }));

            layer.send(signal);

            EXPECT_EQ(layer.wait(), 130) << verb.front() << ", signal " << signal;
        }
    }
}

TEST_F(HeldOffSignals, EndACheckThoughAModuleHasBlockedThem)
{
    installGuided("alpha", "block-in-checkVersion wait-in-checkVersion");
    for (const int signal : {SIGINT, SIGQUIT, SIGTERM, SIGHUP}) {
        fs::remove("/tmp/quillon-test-alpha.log");
        BackgroundLayer layer({"modules", "check", "--source", "system"});
        ASSERT_TRUE(eventually([] { return wasAsked("alpha", "checkVersion("); }));

        layer.send(signal);

        EXPECT_EQ(layer.wait(), 130) << "signal " << signal;
    }
}

TEST_F(HeldOffSignals, EndTheProgramWhenAllUpdatesAreOverAndAModuleDoesNotTakeThatIn)
{
    installGuided("alpha", "hang-in-allUpdateDone");
    for (const std::vector<std::string>& arguments : {kUpdateAlpha, kUpdateAll}) {
        fs::remove("/tmp/quillon-test-alpha.log");
        BackgroundLayer layer(arguments);
        ASSERT_TRUE(eventually([] { return wasAsked("alpha", "allUpdateDone("); }));

        layer.send(SIGTERM);
        layer.send(SIGINT);  // both at once is what a supervisor sends

        EXPECT_EQ(layer.wait(), 130);
        expectNoText(layer.output(), like("*cannot be interrupted safely*"));
        expectText(layer.output(), like("*quillonctl: interrupted; what was begun is over\n*"));
        EXPECT_EQ(semaphoreValue(), 1);
    }
}

TEST_F(HeldOffSignals, OfACrashThatComeFromOutsideDoNotEndAnUpdate)
{
    leaveCrashesToPrograms();
    installWaiting("alpha");
    BackgroundLayer layer(kUpdateAlpha);
    ASSERT_TRUE(isFlashing("alpha"));

    for (const int signal :
         {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGSYS, SIGTRAP, SIGABRT, SIGSEGV}) {
        layer.send(signal);
    }
    goOn();

    EXPECT_EQ(layer.wait(), 0) << layer.output();
    expectText(layer.output(), like("*alpha  2.0      updated\n*"));
    expectNoText(layer.output(), like("*has crashed*"));
    EXPECT_EQ(semaphoreValue(), 1);
}

TEST_F(HeldOffSignals, OfACrashEndWhatUpdatesNothing)
{
    leaveCrashesToPrograms();
    installGuided("alpha", "wait-in-checkVersion");
    for (const int signal : {SIGABRT, SIGSEGV}) {
        fs::remove("/tmp/quillon-test-alpha.log");
        BackgroundLayer layer({"modules", "check", "--source", "system"});
        ASSERT_TRUE(eventually([] { return wasAsked("alpha", "checkVersion("); }));

        layer.send(signal);

        EXPECT_EQ(layer.wait(), -signal) << layer.output();
    }
}

TEST_F(HeldOffSignals, AreNotHeldOffFromWhatAModuleStarts)
{
    installGuided("alpha", "kill-in-doUpdate");

    EXPECT_EQ(runModules({"update", "alpha", "--source", "system"}).exitCode, 0);

    std::string signal;
    std::ifstream("/tmp/quillon-test-child") >> signal;
    EXPECT_EQ(signal, std::to_string(SIGTERM)) << "what ended the child";
}

TEST_F(HeldOffSignals, OfATerminalThatGoesAwayEndNoUpdate)
{
    installWaiting("alpha");
    BackgroundLayer layer(kUpdateAlpha, true);
    ASSERT_TRUE(isFlashing("alpha"));

    layer.hangUp();
    goOn();

    EXPECT_EQ(layer.wait(), 9) << "the output could not be written";
    EXPECT_TRUE(hasEnded("alpha"));
    EXPECT_EQ(semaphoreValue(), 1);
}

TEST_F(HeldOffSignals, OfAReaderThatGoesAwayEndNoUpdate)
{
    for (const char* name : {"alpha", "beta"}) {
        installWaiting(name);
    }

    EXPECT_EQ(runShell("\"$CTL\" modules update --all --source system 2>/var/tmp/err | "
                       "{ head -n 1 >/var/tmp/out; : >/tmp/quillon-test-go; }; "
                       "exit ${PIPESTATUS[0]}"),
              9);

    EXPECT_TRUE(hasEnded("alpha"));
    EXPECT_TRUE(hasEnded("beta"));
    EXPECT_EQ(runShell("grep -c 'standard output could not be written' /var/tmp/err >/var/tmp/n; "
                       "test $(cat /var/tmp/n) = 1"),
              0);
    EXPECT_EQ(semaphoreValue(), 1);
}

TEST_F(HeldOffSignals, LetTheUpdateEndAndBeginNoOther)
{
    for (const char* name : {"alpha", "beta"}) {
        installWaiting(name);
    }
    BackgroundLayer layer(kUpdateAll);
    ASSERT_TRUE(
        eventually([] { return wasAsked("alpha", "doUpdate(") || wasAsked("beta", "doUpdate("); }));

    layer.send(SIGINT);
    ASSERT_TRUE(layer.says("no other one is begun after it"));
    goOn();

    EXPECT_EQ(layer.wait(), 130);
    EXPECT_NE(wasAsked("alpha", "doUpdate("), wasAsked("beta", "doUpdate("));
    expectText(layer.output(), like("*  updated\n*"));
    expectText(layer.output(), like("*  not begun: interrupted\n*"));
    expectText(layer.output(), like("*quillonctl: interrupted; not every update was begun\n*"));
    EXPECT_TRUE(hasEnded("alpha")) << "all are told that the run is over";
}

TEST_F(HeldOffSignals, ThatComeBeforeAProcessModuleIsRunHaveItNotRun)
{
    installGuided("EXT-alpha", "request-in-load");

    const ModulesResult result = runModules({"update", "EXT-alpha"});

    EXPECT_EQ(result.exitCode, 130);
    expectText(result.err, like("*quillonctl: interrupted; nothing was updated\n*"));
    EXPECT_FALSE(wasAsked("EXT-alpha", "doUpdate("));
}

TEST_F(HeldOffSignals, ThatComeWhileModulesAreLoadedHaveNothingDoneWithThem)
{
    installGuided("alpha", "request-in-load");
    for (const std::vector<std::string>& verb : {std::vector<std::string>{"progress", "alpha"},
                                                 {"download"},
                                                 {"update", "alpha", "--source", "shared"},
                                                 {"update", "--all", "--source", "system"}}) {
        const ModulesResult result = runModules(verb);

        EXPECT_EQ(result.exitCode, 130) << verb.front();
        expectText(result.err, like("*quillonctl: interrupted; nothing was updated\n*"));
        EXPECT_EQ(result.out, "") << verb.front();
    }
    EXPECT_FALSE(wasAsked("alpha", "doUpdate("));
}

TEST_F(HeldOffSignals, ThatComeWhileAModuleIsCheckedHaveItNotUpdated)
{
    installGuided("alpha", "request-in-checkVersion");
    for (const std::vector<std::string>& arguments : {kUpdateAlpha, kUpdateAll}) {
        BackgroundLayer layer(arguments);

        EXPECT_EQ(layer.wait(), 130) << layer.output();
        expectText(layer.output(), like("*quillonctl: interrupted; nothing was updated\n*"));
    }
    EXPECT_FALSE(wasAsked("alpha", "doUpdate("));
    EXPECT_EQ(semaphoreValue(), 1);
}

TEST_F(HeldOffSignals, EndTheWaitingForAnotherControlLayer)
{
    sem_t* semaphore = ::sem_open("/SEM_UPDATE_CONTROL", O_CREAT, 0600, 1);
    ASSERT_EQ(::sem_wait(semaphore), 0);
    installWaiting("alpha");

    for (const int signal : {SIGINT, SIGTERM, SIGQUIT, SIGHUP}) {
        BackgroundLayer layer(kUpdateAlpha);
        ASSERT_TRUE(layer.says("Waiting for another update on this device\n"));
        layer.send(signal);

        EXPECT_EQ(layer.wait(), 130) << signal;
        expectText(layer.output(), like("*quillonctl: interrupted; nothing was updated\n*"));
    }

    EXPECT_EQ(semaphoreValue(), 0) << "it is the test's";
    EXPECT_FALSE(wasAsked("alpha", "doUpdate("));
    ::sem_post(semaphore);
}

TEST_F(HeldOffSignals, ThatWereIgnoredAtTheStartAreNoRequests)
{
    const std::vector<int> signals = {SIGINT, SIGQUIT, SIGHUP};
    const std::map<std::string, std::vector<std::string>> verbs = {
        {"wait-in-checkVersion", {"modules", "check", "--source", "system"}},
        {"wait-in-doUpdate", kUpdateAll}};
    for (const auto& [what, arguments] : verbs) {
        for (const char* name : {"alpha", "beta"}) {
            installGuided(name, what);
        }
        fs::remove("/tmp/quillon-test-go");
        fs::remove("/tmp/quillon-test-alpha.log");
        fs::remove("/tmp/quillon-test-beta.log");
        const std::string call = what.substr(what.rfind('-') + 1) + "(";
        BackgroundLayer layer(arguments, /*onTerminal=*/false, signals);
        ASSERT_TRUE(eventually([&] { return wasAsked("alpha", call) || wasAsked("beta", call); }));

        for (const int signal : signals) {
            layer.send(signal);
        }
        goOn();

        EXPECT_EQ(layer.wait(), 0) << what << "\n" << layer.output();
        EXPECT_TRUE(wasAsked("alpha", call) && wasAsked("beta", call)) << what;
    }
}

TEST_F(HeldOffSignals, EndACheckWhileAModuleDoesNotAnswer)
{
    install("alpha", "need=1\ncheckVersion.effect=hang\n");
    offer("alpha");
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"modules", "check", "--source", "system"}, kUpdateAll,
          kUpdateAlpha}) {
        fs::remove("/tmp/quillon-test-alpha.log");
        BackgroundLayer layer(arguments);
        ASSERT_TRUE(eventually([] { return wasAsked("alpha", "checkVersion("); }));

        layer.send(SIGINT);

        EXPECT_EQ(layer.wait(), 130);
        expectText(layer.output(), like("*quillonctl: interrupted; nothing was updated\n*"));
    }
    EXPECT_NE(semaphoreValue(), 0);
}

}  // namespace
}  // namespace quillon::test
