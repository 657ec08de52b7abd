// quillon-module emulate: modules that behave as those of a recorded run.

#include <gtest/gtest.h>
#include <json/json.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <utility>

#include "support/files.h"
#include "support/texts.h"
#include "unit/tools/module-program.h"

namespace {

namespace fs = std::filesystem;

using quillon::test::expectText;
using quillon::test::like;
using quillon::test::outputOf;
using quillon::test::readAll;
using quillon::test::Result;
using quillon::test::writeFile;

class ModuleEmulate : public ModuleCheck
{
protected:
    ModuleEmulate() { fs::current_path(directory); }
    ~ModuleEmulate() override { fs::current_path("/"); }

    static Json::Value parsed(const std::string& text)
    {
        Json::Value value;
        std::istringstream(text) >> value;
        return value;
    }

    static Result emulate(const std::string& record)
    {
        writeFile("run.jsonl", record);
        fs::remove_all("replay");
        return runModule({"emulate", "--json", "run.jsonl", "replay"});
    }

    /// @return what is said of the one module of a record
    static Json::Value only(const std::string& record)
    {
        const Result result = emulate(record);
        EXPECT_EQ(result.status, 0) << result.err;
        const Json::Value modules =
            result.status == 0 ? parsed(result.out)["modules"] : Json::Value();
        EXPECT_EQ(modules.size(), 1U) << record;
        return modules.empty() ? Json::Value() : modules[0];
    }

    static void expectSettings(const std::string& record, const std::string& settings)
    {
        EXPECT_EQ(only(record)["settings"], parsed(settings)) << record;
        EXPECT_EQ(parsed(readAll("replay/pump.json")), parsed(settings)) << record;
    }

    /// A run in which the pump was found to need version 2.0.
    static std::string updated(const std::string& members)
    {
        return R"({"event":"looked","modules":[{"name":"pump","running":"1.0","offered":"2.0",)"
               R"("result":1,"expectedSeconds":30,"seconds":0.1}]})"
               "\n"
               R"({"event":"updated","modules":[{"name":"pump","before":"1.0","offered":"2.0",)"
               R"("expectedSeconds":30,)" +
               members + "}]}\n";
    }

    static std::string past(const std::string& members)
    {
        return R"({"event":"past-update","at":1,"module":"pump","expectedSeconds":30,)" + members +
               "}\n";
    }

    static constexpr const char* kListed =
        R"({"event":"modules","modules":[{"name":"pump","kind":"firmware","running":"1.0",)"
        R"("package":"waterpumpemp"}]})"
        "\n";
};

TEST_F(ModuleEmulate, MakesAModuleThatBehavesAsRecorded)
{
    expectSettings(kListed + updated(R"("after":"2.0","result":0,"seconds":28.5)"),
                   R"({"identifier":"waterpumpemp","version":"1.0","expectedTime":30,
                       "seconds":28.5,"result":0})");
    EXPECT_EQ(readAll("replay/pump.so"), readAll(EXAMPLE_MODULES "/emulated.so"));
    EXPECT_EQ(outputOf("ls -A replay"), "pump.json\npump.so\n");
}

TEST_F(ModuleEmulate, NamesWhatTheRecordDoesNotTell)
{
    EXPECT_EQ(only(past(R"("outcome":"updated","result":0,"seconds":2)"))["defaults"],
              parsed(R"({"identifier":"pumpemp","version":"1.0","progress":"even"})"));
    EXPECT_EQ(only(R"({"event":"modules","modules":[{"name":"pump"}]})")["defaults"],
              parsed(R"({"identifier":"pumpemp","version":"1.0","expectedTime":5,
                         "speed":1048576,"progress":"even"})"));
    EXPECT_EQ(
        only(past(
            R"("outcome":"failed","result":-1,"seconds":2,"reason":"update-failed")"))["defaults"]
                                                                                      ["errno"],
        "EIO");
}

TEST_F(ModuleEmulate, FailsAsRecorded)
{
    const std::string told = R"("version":"1.0","expectedTime":30,)";
    expectSettings(updated(R"("result":7,"seconds":3,"reason":"update-failed")"),
                   "{" + told + R"("result":7,"seconds":3.0})");
    expectSettings(updated(R"("result":-1,"seconds":3,"reason":"exception")"),
                   "{" + told + R"("result":-1,"seconds":3.0})");
    expectSettings(updated(R"("late":true)"), "{" + told + R"("hangAtByte":0})");
    expectSettings(updated(R"("after":"1.0")"), "{" + told + R"("crashAtByte":0})");
    expectSettings(past(R"("outcome":"timed-out")"), R"({"expectedTime":30,"hangAtByte":0})");
    expectSettings(past(R"("outcome":"cut-off")"), R"({"expectedTime":30,"crashAtByte":0})");
}

TEST_F(ModuleEmulate, LiesAsRecorded)
{
    expectSettings(
        updated(R"("after":"1.0","result":0,"seconds":3,"problem":"unchanged")"),
        R"({"version":"1.0","expectedTime":30,"result":0,"seconds":3.0,"claims":"1.0"})");
    expectText(only(updated(R"("after":"v2","result":0,"seconds":3)"))["note"].asString(),
               like("it ran v2 afterwards: *"));
}

TEST_F(ModuleEmulate, NeedsNoUpdateWhereNoneWasNeeded)
{
    const auto looked = [](const std::string& members) {
        return R"({"event":"looked","modules":[{"name":"pump","running":"2.0",)" + members + "}]}";
    };
    expectSettings(looked(R"("offered":"1.0","result":0,"reason":"up-to-date")"),
                   R"({"version":"2.0","need":0})");
    expectSettings(looked(R"("offered":"2.0","result":0,"reason":"up-to-date")"),
                   R"({"version":"2.0"})");
    expectSettings(looked(R"("result":-1,"reason":"check-failed")"),
                   R"({"version":"2.0","need":-1})");
    expectSettings(R"({"event":"modules-check","modules":[{"name":"pump","decision":"up-to-date",)"
                   R"("running":"2.0"}]})",
                   R"({"version":"2.0","need":0})");
    EXPECT_EQ(
        only(looked(R"("result":-1,"reason":"no-image","text":"its image is missing")"))["note"],
        "its image is missing");
}

TEST_F(ModuleEmulate, DoesNotTakeImagesThatWereRefusedForFailuresOfTheModule)
{
    expectSettings(updated(R"("result":-1,"seconds":3,"reason":"not-signed","text":"unsigned")"),
                   R"({"version":"1.0","expectedTime":30})");
}

TEST_F(ModuleEmulate, BehavesAsInTheLatestUpdate)
{
    expectSettings(
        past(R"("outcome":"cut-off")") + past(R"("outcome":"updated","result":0,"seconds":2.5)"),
        R"({"expectedTime":30,"result":0,"seconds":2.5})");
    expectSettings(updated(R"("after":"2.0","result":0,"seconds":3)") +
                       R"({"event":"looked","modules":[{"name":"pump","running":"2.0",)"
                       R"("offered":"2.0","result":0,"reason":"up-to-date"}]})",
                   R"({"version":"1.0","expectedTime":30,"result":0,"seconds":3.0})");
}

TEST_F(ModuleEmulate, RunsWhatItRanBeforeTheLatestUpdate)
{
    const std::string again = R"({"event":"updated","modules":[{"name":"pump","before":"2.0",)"
                              R"("after":"3.0","offered":"3.0","result":0,"seconds":3}]})";
    EXPECT_EQ(
        only(updated(R"("after":"2.0","result":0,"seconds":3)") + again)["settings"]["version"],
        "2.0");
}

TEST_F(ModuleEmulate, DoesNotTakeTheUpdatedVersionForTheOneBefore)
{
    const Json::Value module =
        only(R"({"event":"modules","modules":[{"name":"pump","running":"2.0"}]})"
             "\n" +
             past(R"("outcome":"updated","offered":"2.0","result":0,"seconds":2.5)"));
    EXPECT_FALSE(module["settings"].isMember("version"));
    EXPECT_EQ(module["defaults"]["version"], "1.0");
}

TEST_F(ModuleEmulate, IsUpdatedAsBeforeAlthoughThereWasNothingToUpdateLast)
{
    const std::string looked = R"({"event":"looked","modules":[{"name":"pump","running":"2.0",)"
                               R"("offered":"1.0","result":0,"reason":"up-to-date"}]})"
                               "\n";
    const std::string end = past(R"("outcome":"updated","result":0,"seconds":2.5)");
    for (const std::string& record : {looked + end, end + looked}) {
        expectSettings(record, R"({"version":"2.0","expectedTime":30,"result":0,"seconds":2.5})");
    }
}

TEST_F(ModuleEmulate, LeavesOutWhatItCannotBe)
{
    const std::string record =
        R"({"event":"modules","modules":[{"name":"pump","kind":"unusable","reason":"no entry"},)"
        R"({"name":"ext-test","kind":"process"}]})";
    const Result result = emulate(record);
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(parsed(result.out)["modules"],
              parsed(R"([{"name":"ext-test","leftOut":"it is a process module"},
                         {"name":"pump","leftOut":"it was unusable: no entry"}])"));
    EXPECT_TRUE(fs::is_empty("replay"));
}

TEST_F(ModuleEmulate, SaysTheSameForPeople)
{
    writeFile("run.jsonl",
              kListed + updated(R"("result":7,"seconds":0.051,"reason":"update-failed")"));
    const Result result = runModule({"emulate", "run.jsonl", "replay/"});
    EXPECT_EQ(result.status, 0) << result.err;
    expectText(
        result.out,
        like("made replay/: copy its files to /usr/fwupdate/controls/ *\n"
             "  pump\n"
             "      recorded: {\"expectedTime\":30,\"identifier\":\"waterpumpemp\",\"result\":7,"
             "\"seconds\":0.051,\"version\":\"1.0\"}\n"
             "      not recorded: {\"errno\":\"EIO\",\"progress\":\"even\"}\n"
             "      was offered: 2.0\n"));
}

TEST_F(ModuleEmulate, RefusesWhatIsNoRecord)
{
    const std::string past = R"({"event":"past-update","outcome":"updated",)";
    const std::pair<std::string, const char*> cases[] = {
        {"", "quillon-module: run.jsonl tells of no module; record a run with: quillonctl *\n"},
        {"{}\n[]\n", "*run.jsonl, line 2: not a whole line of *; record a run with: *"},
        {R"({"event":"looked","modules":[{"name":"pu)", "*line 1: not a whole line of *"},
        {std::string(100000, '['), "*line 1: not a whole line of *"},
        {R"({"event":"looked","modules":["pump"]})", "*line 1: not a whole line of *"},
        {R"({"event":"looked","modules":[{}]})", "*line 1: \"\" is no name of a module*"},
        {past + R"("module":"../pump"})", "*line 1: \"../pump\" is no name of a module*"},
        {past + R"("module":"a\nb"})", "*line 1: \"a?b\" is no name of a module*"},
        {past + "\"module\":\"" + std::string(201, 'a') + "\"}", "*is no name of a module*"},
        {R"({"event":"modules","modules":[{"name":"pump","package":"a/emp"}]})",
         "*line 1: \"a/emp\" is no identifier*"},
        {past + R"("module":"pump","result":0,"seconds":-1})", "*line 1: the seconds of *"},
        {past + R"("module":"pump","result":0,"seconds":1e300})", "*line 1: the seconds of *"},
        {past + R"("module":"pump","result":0,"seconds":1e999})", "*line 1: *"},
        {past + R"("module":"pump","expectedSeconds":1e10})", "*line 1: not a whole line of *"},
        {past + R"("module":"pump","result":99999999999,"seconds":1,"reason":"update-failed"})",
         "*line 1: not a whole line of *"},
        {past + R"("module":"wa-pump"})",
         "*the identifier of wa-pump is not recorded*; add the output of: quillonctl *"},
        {past + R"("module":"temper"})", "*the identifier of temper is not recorded*"}};
    for (const auto& [record, text] : cases) {
        const Result result = emulate(record);
        EXPECT_EQ(result.status, 3) << record.substr(0, 200);
        EXPECT_EQ(result.out, "");
        expectText(result.err, like(text));
        EXPECT_FALSE(fs::exists("replay"));
    }
    std::string many;
    for (int i = 0; i < 1100; ++i) {
        many += past + R"("module":"m)" + std::to_string(i) + "\"}\n";
    }
    expectText(emulate(many).err, like("*line 1002: more than 1000 modules; *"));
    EXPECT_EQ(outputOf("ls -A"), "lantern.bin\nrun.jsonl\n");
}

TEST_F(ModuleEmulate, SaysWhichFileCannotBeReadOrMade)
{
    fs::create_directory("there");
    const auto errorOf = [](const std::string& record, const std::string& made) {
        const Result result = runModule({"emulate", record, made});
        EXPECT_EQ(result.status, 3);
        return result.err;
    };
    for (const char* file : {"nothing", "there", "/dev/zero"}) {
        expectText(errorOf(file, "replay"),
                   like("quillon-module: " + std::string(file) + " cannot be read, or *\n"));
    }
    writeFile("run.jsonl", kListed);
    expectText(errorOf("run.jsonl", "there"), like("*: there exists already: *"));
    expectText(errorOf("run.jsonl", "no/where"),
               like("*no directory can be made in no: No such file or directory\n"));

    fs::create_directory("bin");
    fs::copy_file(MODULE_PROGRAM, "bin/quillon-module");
    const Result lonely =
        quillon::test::run({directory + "/bin/quillon-module", "emulate", "run.jsonl", "replay"});
    EXPECT_EQ(lonely.status, 3);
    expectText(lonely.err, like("*the emulated module is not in *: install the development kit*"));
    EXPECT_EQ(outputOf("ls -A"), "bin\nlantern.bin\nrun.jsonl\nthere\n");
}

}  // namespace
