// Output that does not arrive, and texts from outside that are too long or steer the terminal.

#include <signal.h>

#include <filesystem>

#include "support/files.h"
#include "support/texts.h"
#include "system/control-layer.h"
#include "unit/tools/ctl-program.h"

namespace quillon::test {
namespace {

class OutputOfTheControlLayer : public CtlModules
{
protected:
    /// Offers a version to the module alpha that needs it.
    static void offerVersion(const std::string& version, const std::string& seconds = "3")
    {
        install("alpha", "need=1\n");
        offer("alpha");
        const std::string path = "/lib/firmware/ext/alpha/info.json";
        std::string text = readAll(path);
        text.replace(text.find("2.0"), 3, version);
        text.replace(text.find(":3}"), 3, ":" + seconds + "}");
        writeFile(path, text);
    }
};

TEST_F(OutputOfTheControlLayer, ThatDoesNotArriveExitsWith9WhateverTheVerb)
{
    install("alpha", "need=1\nprogress=3\n");
    offer("alpha");
    for (const std::string verb :
         {"--help", "--version", "modules --help", "modules list", "modules check --source system",
          "modules update alpha --source system", "modules update --all --source system",
          "modules version alpha", "modules progress alpha", "modules download",
          "modules unlock"}) {
        for (const std::string target : {"/dev/full", "&-"}) {
            EXPECT_EQ(runShell("\"$CTL\" " + verb + " >" + target + " 2>/var/tmp/err"), 9) << verb;
            EXPECT_EQ(
                runShell("grep -v ^FWUPDATE /var/tmp/err | grep -v ^QUILLON | "
                         "grep -c '^quillonctl: standard output could not be written' >/dev/null"),
                0)
                << verb;
        }
        EXPECT_EQ(runShell("\"$CTL\" --json " + verb + " >/dev/full 2>/dev/null"), 9) << verb;
    }
    for (const std::string verb : {"progress", "stop", "estimate /tmp", "update /tmp"}) {
        EXPECT_EQ(runShell("\"$CTL\" --json " + verb + " >/dev/full 2>/dev/null"), 9) << verb;
    }
}

TEST_F(OutputOfTheControlLayer, IsNotWrittenIntoAnotherFileWhenItWasClosed)
{
    install("alpha", "need=1\n");
    offer("alpha");

    EXPECT_EQ(runShell("\"$CTL\" modules update alpha --source system <&- >&- 2>&-"), 9);

    EXPECT_EQ(semaphoreValue(), 1);
    EXPECT_EQ(runModules({"update", "alpha", "--source", "system"}).exitCode, 0);
}

TEST_F(OutputOfTheControlLayer, ThatNobodyReadsIsGivenUpAfterOneRequest)
{
    install("alpha", "need=1\n");
    offer("alpha");
    for (const std::vector<std::string>& verb : {std::vector<std::string>{"list"},
                                                 {"check", "--source", "system"},
                                                 {"version", "alpha"}}) {
        std::vector<std::string> command = {"modules"};
        command.insert(command.end(), verb.begin(), verb.end());
        const UnreadCtl unread(command);
        const std::string children = "/proc/" + std::to_string(unread.process()) + "/task/" +
                                     std::to_string(unread.process()) + "/children";
        ASSERT_TRUE(eventually(
            [&] { return wasAsked("alpha", "getActiveVersion(") && readAll(children).empty(); }));

        ::kill(unread.process(), SIGTERM);

        EXPECT_TRUE(eventually([&] { return !unread.isAlive(); })) << verb.front();
        std::filesystem::remove("/tmp/quillon-test-alpha.log");
    }
}

TEST_F(OutputOfTheControlLayer, ShowsTheLongestTimeAsItIs)
{
    offerVersion("2.0", "4294967295");
    install("beta", "need=1\n");
    offer("beta", 12);

    EXPECT_EQ(of("alpha", json({"check", "--source", "system"}))["seconds"].asUInt(), 4294967295U);
    const ModulesResult result = runModules({"check", "--source", "system"});
    expectText(result.out, like("*needs an update, about 4294967295 s\n*"));
    expectText(result.out, like("*2 modules need an update, about 4294967307 s\n*"));
}

TEST_F(OutputOfTheControlLayer, OfAnUpdateOfTheLongestTimeIsGivenUpInTime)
{
    offerVersion("2.0", "4294967295");  // the registry allows it one second
    install("alpha", "need=1\ndoUpdate.effect=hang\n");

    const Json::Value document = json({"update", "alpha", "--source", "system"}, 13);

    EXPECT_EQ(of("alpha", document)["outcome"], "timed-out");
}

TEST_F(OutputOfTheControlLayer, CutsALongTextInATableAndKeepsItInJson)
{
    offerVersion(std::string(3000, 'x') + "end");

    const ModulesResult result = runModules({"check", "--source", "system"});
    expectText(result.out, like("*  " + std::string(40, 'x') + "...  needs an update*"));
    EXPECT_LT(result.out.size(), 400U);
    expectText(of("alpha", json({"check", "--source", "system"}))["offered"].asString(),
               like("*xend*"));

    offerVersion(std::string(1000000, 'x'));
    EXPECT_LT(runModules({"check", "--source", "system"}).out.size(), 400U);
    EXPECT_EQ(of("alpha", json({"check", "--source", "system"}))["offered"].asString().size(),
              4096U + 3U);
}

TEST_F(OutputOfTheControlLayer, LetsNoTextSteerTheTerminal)
{
    install("alpha",
            "version=\x1b[2J|\x9b\x32J|\xc2\x9b\x32J|\xe2\x80\xae|\xe2\x80\xa8|\xff|"
            "gr\xc3\xbc\xc3\x9f\n");
    install("beta", "version=1.0\n");

    const ModulesResult result = runModules({"list"});

    expectText(result.out, like("*alpha  ?[2J|?2J|?2J|?|?|?|gr\xc3\xbc\xc3\x9f  no package\n*"));
    expectText(result.out, like("*beta   1.0                      no package\n*"));
    expectNoText(runModules({"version", "alpha"}).out, like("*\x9b*"));
}

}  // namespace
}  // namespace quillon::test
