// What quillonctl tells of the updates that the service has kept.

#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/files.h"
#include "support/texts.h"
#include "tools/quillonctl/history.h"
#include "unit/tools/ctl-program.h"

using namespace quillon;
using namespace quillon::test;

namespace {

namespace fs = std::filesystem;

const std::string kDirectory = "/var/lib/quillon/history/";
const std::string kFile = kDirectory + "history.jsonl";
const std::string kRefusedFile = kDirectory + "refused.jsonl";
const std::string kLayer = kDirectory + "modules/1795407000-1/";
constexpr const char* kHeadings = "WHEN              MODULE  OFFERED  EXPECTED  TOOK  RESULT\n";

constexpr const char* kEnded = "{\"event\":\"ended\",\"clock\":300,\"result\":0}\n";

/// The first line of an update at 2026-11-23 04:10 UTC, or that many days later.
std::string began(int day = 0, const std::string& members = "")
{
    return "{\"event\":\"began\",\"clock\":100,\"at\":" + std::to_string(1795407000 + day * 86400) +
           ",\"pid\":1,\"directory\":\"/tmp/stick/\"" + members + "}\n";
}

std::string started(const std::string& name)
{
    return "{\"event\":\"started\",\"clock\":160,\"module\":\"" + name +
           "\",\"offered\":\"2.0\",\"seconds\":30}\n";
}

/// Twelve seconds later.
std::string finished(const std::string& name, const std::string& members = "\"result\":0")
{
    return "{\"event\":\"finished\",\"clock\":172,\"module\":\"" + name +
           "\",\"offered\":\"2.0\",\"seconds\":30," + members + "}\n";
}

std::string updated(const std::string& name)
{
    return started(name) + finished(name);
}

/// How long the processor has worked for programs that have ended.
double secondsOfChildren()
{
    rusage usage = {};
    getrusage(RUSAGE_CHILDREN, &usage);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

class CtlHistory : public testing::Test
{
protected:
    CtlHistory() { setenv("TZ", "UTC", 1); }

    static std::string tableOf(const std::string& lines)
    {
        writeFile(kFile, lines);
        const CtlResult result = runCtl({"history"});
        EXPECT_EQ(result.exitCode, 0) << result.err;
        return result.out;
    }

    /// That a line is passed over wherever it stands.
    static void expectNoEffect(const std::string& line)
    {
        EXPECT_EQ(tableOf(line + began() + line + updated("lamp") + line + kEnded + line),
                  kHeadings + std::string("2026-11-23 04:11  lamp    2.0      30 s      12 s  "
                                          "updated\n"))
            << line;
    }
};

TEST_F(CtlHistory, HasARowForEachModuleOfEachUpdate)
{
    expectText(
        tableOf(began() + updated("lamp") + started("horn") +
                finished("horn", R"("result":5,"reason":"update-failed")") + kEnded + began(1) +
                updated("lamp") + kEnded),
        kHeadings + std::string("2026-11-23 04:11  lamp    2.0      30 s      12 s  updated\n"
                                "2026-11-23 04:11  horn    2.0      30 s      12 s  failed: the "
                                "module's own code is 5\n"
                                "2026-11-24 04:11  lamp    2.0      30 s      12 s  updated\n"));
}

TEST_F(CtlHistory, ShowsTheEarlierFileFirst)
{
    writeFile(kDirectory + "earlier-history.jsonl", began() + updated("lamp") + kEnded);
    expectText(tableOf(began(1) + updated("horn") + kEnded), like("*lamp*\n*horn*\n"));
}

TEST_F(CtlHistory, ShowsRefusedUpdatesAmongTheOthers)
{
    const std::string refused = started("horn") + finished("horn", R"("result":-1)") + kEnded;
    writeFile(kRefusedFile, began() + refused + began(3) + refused);
    expectText(tableOf(began(1) + updated("lamp") + kEnded + began(2) + updated("lamp") + kEnded),
               like("WHEN*\n2026-11-23*horn*failed*\n2026-11-24*lamp*updated\n"
                    "2026-11-25*lamp*updated\n2026-11-26*horn*failed*\n"));
    expectText(tableOf(""), like("WHEN*\n2026-11-23*horn*failed*\n2026-11-26*horn*failed*\n"));
}

TEST_F(CtlHistory, ShowsUpdatesOfControlLayersAmongTheOthers)
{
    writeFile(kLayer + "history.jsonl", began(1) + updated("horn") + kEnded);
    writeFile(kDirectory + "modules/1-1/refused.jsonl",
              began(3) + started("bell") + finished("bell", R"("result":-1)") + kEnded);
    writeFile(kDirectory + "modules/stray", "");
    expectText(tableOf(began() + updated("lamp") + kEnded + began(2) + updated("lamp") + kEnded),
               like("WHEN*\n*lamp*\n2026-11-24*horn*updated\n*lamp*\n*bell*failed*\n"));
}

TEST_F(CtlHistory, TellsTheSourceOfAControlLayersUpdate)
{
    writeFile(kLayer + "history.jsonl",
              R"({"event":"began","clock":100,"at":1795407000,"pid":1,"directory":"package"})"
              "\n" +
                  updated("horn") + kEnded);
    const CtlResult result = runCtl({"--json", "history"});
    expectText(result.out, like("*\"outcome\":\"updated\",\"result\":0,\"seconds\":12.0,"
                                "\"source\":\"package\"}\n"));
}

TEST_F(CtlHistory, TellsWhatBecameOfAControlLayersUpdateWithoutAnEnd)
{
    const std::string ended = "{\"event\":\"ended\",\"clock\":300,\"result\":13}\n";
    const auto told = [](const std::string& lines) {
        writeFile(kLayer + "history.jsonl", began() + started("horn") + lines);
        return tableOf("");
    };
    expectText(told(""), like("*horn*  cut off\n"));
    expectText(told("{\"event\":\"late\",\"clock\":200,\"module\":\"horn\"}\n" + ended),
               like("*horn*  timed out: its end was not awaited\n"));
    expectText(told(ended), like("*horn*  cut off\n"));
}

TEST_F(CtlHistory, TakesNoRefusedUpdateForTheEndOfOneThatWasCutOff)
{
    writeFile(kRefusedFile,
              finished("lamp") + kEnded + began(1, ",\"lost\":true") + updated("horn") + kEnded);
    expectText(tableOf(began() + started("lamp")), like("*lamp*cut off\n*horn*updated\n"));
}

TEST_F(CtlHistory, PassesOverARefusedUpdateThatIsNotThereWhole)
{
    writeFile(kRefusedFile, began() + finished("horn") + began(1) + started("lamp"));
    expectText(tableOf(""), "No update is recorded\n");
}

TEST_F(CtlHistory, TellsWhatWasCutOff)
{
    expectText(
        tableOf(began() + updated("lamp") + started("horn") + began(1) + updated("lamp") + kEnded),
        like("*\n2026-11-23 04:11  horn    2.0      30 s      -     cut off\n*"));
    expectText(tableOf(began() + started("lamp")), like("*lamp*cut off\n"));
    expectText(tableOf(began() + updated("lamp")), like("*lamp*updated\n*04:10  -  *cut off\n"));
}

TEST_F(CtlHistory, TellsACutOffUpdateFromOneThatCouldNotBeRecorded)
{
    expectText(tableOf(began() + started("lamp") + began(1, ",\"lost\":true") + kEnded),
               like("*lamp*  not recorded\n"));

    const std::string latest = began() + started("horn") + began(1) + started("lamp");
    expectText(tableOf(latest), like("*horn*  cut off\n*lamp*  cut off\n"));
    std::filesystem::create_symlink("nowhere", kDirectory + std::string(".lost"));
    expectText(tableOf(latest), like("*horn*  cut off\n*lamp*  not recorded\n"));
}

TEST_F(CtlHistory, TellsThatAnExceptionHasEndedAnUpdate)
{
    expectText(
        tableOf(began() + started("lamp") + "{\"event\":\"ended\",\"clock\":300,\"result\":-1}\n"),
        like("*lamp*  failed: an exception was raised\n"));
}

TEST_F(CtlHistory, TellsWhatIsRunningAsLongAsTheServiceLives)
{
    const pid_t ended = fork();
    if (ended == 0) {
        _exit(0);
    }
    ASSERT_EQ(waitpid(ended, nullptr, 0), ended);
    const auto runOf = [](pid_t process, int at, const char* clock = "1000000000") {
        return std::string(R"({"event":"began","directory":"/tmp/s/","clock":)") + clock +
               ",\"pid\":" + std::to_string(process) + ",\"at\":" + std::to_string(at) + "}\n" +
               started("lamp");
    };
    const auto resultWith = [](const std::string& record, const std::string& history) {
        writeFile("/run/quillon/run/update.jsonl", record);
        const std::string table = tableOf(history);
        return table.substr(table.find("-     ") + 6);
    };
    const std::string running = runOf(getpid(), 1000);

    EXPECT_EQ(resultWith(running, running), "running\n");
    EXPECT_EQ(resultWith(runOf(ended, 1000), runOf(ended, 1000)), "cut off\n");
    EXPECT_EQ(resultWith(runOf(0, 1000), runOf(0, 1000)), "cut off\n");
    const TextRule both = like("cut off\n*lamp*running\n");
    expectText(resultWith(running, runOf(1, 1000)), both);        // of another process
    expectText(resultWith(running, runOf(getpid(), 999)), both);  // of another start
    EXPECT_EQ(resultWith(running, ""), "running\n") << "nothing of it is kept yet";
    const std::string reused = runOf(getpid(), 1000, "0.001");
    EXPECT_EQ(resultWith(reused, reused), "cut off\n") << "another process has its number";
    EXPECT_EQ(resultWith("", running), "cut off\n") << "the device was started since";
}

TEST_F(CtlHistory, PassesOverWhatIsNoLineOfTheService)
{
    for (const char* line :
         {"[1]\n", "no JSON\n", "\n", "{\"event\":[]}\n", "{\"event\":\"sta\n", "{}\n", "7\n",
          "{\"event\":\"began\",\"clock\":\"x\"}\n", "{\"event\":\"began\",\"clock\":-1}\n",
          "{\"event\":\"began\",\"clock\":1e300}\n",
          "{\"event\":\"began\",\"clock\":1,\"at\":9223372036854775807}\n",
          "{\"event\":\"ended\",\"clock\":1,\"result\":1e20}\n"}) {
        expectNoEffect(line);
    }
    expectNoEffect(std::string(100000, '[') + '\n');
    expectNoEffect(std::string(4096, '\0') + '\n');
}

TEST_F(CtlHistory, PassesOverALineWithoutItsEnd)
{
    expectText(tableOf(began() + updated("lamp") + started("horn") +
                       "{\"event\":\"finished\",\"clock\":172,\"module\":\"horn\",\"result\":0}"),
               like("*\n2026-11-23 04:11  horn    2.0      30 s      -     cut off\n"));
}

TEST_F(CtlHistory, ShowsNothingThatSteersTheTerminal)
{
    const std::string out = tableOf(
        began() + started("la\\u001bmp") +
        finished("la\\u001bmp", R"("result":-1,"reason":"exception","detail":"\u001b[2J")"));
    expectText(out, like("*la?mp*failed: an exception was raised: ?[2J\n*"));
}

TEST_F(CtlHistory, IsToldToProgramsAsWell)
{
    writeFile(kFile, began() + updated("lamp") + started("horn") +
                         finished("horn", R"("result":-1,"reason":"not-signed")") + kEnded +
                         began(1) + started("lamp"));

    const CtlResult result = runCtl({"--json", "history"});

    EXPECT_EQ(result.exitCode, 0);
    expectText(
        result.out,
        "{\"at\":1795407060,\"directory\":\"/tmp/stick/\",\"event\":\"past-update\","
        "\"expectedSeconds\":30,\"module\":\"lamp\",\"offered\":\"2.0\",\"outcome\":\"updated\","
        "\"result\":0,\"seconds\":12.0}\n"
        "{\"at\":1795407060,\"directory\":\"/tmp/stick/\",\"event\":\"past-update\","
        "\"expectedSeconds\":30,\"module\":\"horn\",\"offered\":\"2.0\",\"outcome\":\"failed\","
        "\"reason\":\"not-signed\",\"result\":-1,\"seconds\":12.0,\"text\":\"its image is not "
        "signed, or with a key that the device does not trust\"}\n"
        "{\"at\":1795493460,\"directory\":\"/tmp/stick/\",\"event\":\"past-update\","
        "\"expectedSeconds\":30,\"module\":\"lamp\",\"offered\":\"2.0\",\"outcome\":\"cut-off\"}"
        "\n");
}

TEST_F(CtlHistory, BeginsWhereItIsAskedTo)
{
    writeFile(kFile, began() + updated("lamp") + kEnded + began(1) + updated("horn") + kEnded);
    for (const char* since : {"2026-11-24", "2026-11-23 04:12", "2026-11-24 04:11"}) {
        const CtlResult result = runCtl({"history", "--since", since});
        EXPECT_EQ(result.exitCode, 0);
        expectText(result.out, like("WHEN*\n2026-11-24 04:11  horn*\n"));
        expectNoText(result.out, like("*lamp*"));
    }
    expectText(runCtl({"history", "--since", "2026-11-23 04:11"}).out, like("*lamp*horn*"));
    expectText(runCtl({"history", "--since", "2126-01-01"}).out,
               "No update is recorded since 2126-01-01 00:00\n");
}

TEST_F(CtlHistory, RefusesATimeThatIsNone)
{
    for (const char* since :
         {"", "yesterday", "2026-02-30", "2026-13-01", "2026-1-1", "2026-11-23 4",
          "2026-11-23 04:10 ", "d", "30", "30s", "-3d", "1234567d", "3 d"}) {
        const CtlResult result = runCtl({"history", "--since", since});
        EXPECT_EQ(result.exitCode, 2) << since;
        expectText(result.err, like("quillonctl: --since: takes a date like 2026-11-23, *"));
    }
}

TEST_F(CtlHistory, CountsDaysAndHoursBack)
{
    EXPECT_EQ(momentOf("30d", 10000000), 10000000 - 30 * 86400);
    EXPECT_EQ(momentOf("12h", 10000000), 10000000 - 12 * 3600);
    EXPECT_EQ(momentOf("0h", 10000000), 10000000);
    EXPECT_EQ(momentOf("999999d", 0), -999999LL * 86400);
}

TEST_F(CtlHistory, ThatHoldsNothingIsNoError)
{
    for (const char* lines : {"", "no JSON\n"}) {
        expectText(tableOf(lines), "No update is recorded\n");
    }
    fs::remove_all(kDirectory);
    const CtlResult result = runCtl({"history", "--plot", "/tmp/plot.svg"});
    EXPECT_EQ(result.exitCode, 0);
    expectText(result.out,
               "No update is recorded: the service keeps its history only if the "
               "directory /var/lib/quillon/history/ exists\n");
    EXPECT_FALSE(fs::exists("/tmp/plot.svg"));
}

TEST_F(CtlHistory, ThatIsSomethingElseIsAnErrorWithTheRemedy)
{
    writeFile("/run/elsewhere", began() + updated("lamp") + kEnded);
    for (const char* target : {"/run/elsewhere", "/dev/zero", "/run", "/nowhere"}) {
        fs::remove(kFile);
        fs::create_directories(kDirectory);
        fs::create_symlink(target, kFile);
        const CtlResult result = runCtl({"history"});
        EXPECT_EQ(result.exitCode, 9) << target;
        expectText(result.err, like("quillonctl: " + kFile +
                                    " is not the service's history: it is "
                                    "no regular file; remove it, *\n"));
    }
    fs::remove(kFile);
    ASSERT_EQ(mkfifo(kFile.c_str(), 0666), 0);
    EXPECT_EQ(runCtl({"history"}).exitCode, 9);

    fs::remove(kFile);
    writeFile(kFile, "");
    fs::resize_file(kFile, 5U << 20U);
    expectText(runCtl({"history"}).err, like("*: it is too large; remove it, *\n"));
}

TEST_F(CtlHistory, TakesNoLongerForMillionsOfLinesThatAreNone)
{
    const std::string update = began() + updated("lamp") + kEnded;
    const auto secondsFor = [&](const std::string& others) {
        std::string lines = update;
        while (lines.size() + others.size() <= (4U << 20U)) {
            lines += others;
        }
        const double before = secondsOfChildren();
        expectText(tableOf(lines), like("WHEN*\n*lamp*updated\n"));
        return secondsOfChildren() - before;
    };
    const double usual = secondsFor(updated("lamp"));

    EXPECT_LT(secondsFor("\n"), 20 * usual);
    EXPECT_LT(secondsFor("{\n"), 20 * usual);
}

TEST_F(CtlHistory, TellsWhoMayReadIt)
{
    if (!canRunCtlAs(65534)) {
        GTEST_SKIP() << "nobody else can run the program here";
    }
    writeFile(kFile, began());
    fs::permissions(kDirectory, fs::perms::owner_all);

    const CtlResult result = runCtl({"history"}, 65534);

    EXPECT_EQ(result.exitCode, 9);
    expectText(result.err, "quillonctl: cannot read " + kDirectory +
                               "earlier-history.jsonl: Permission denied; run this as root, or as "
                               "a member of the group of its directory\n");
}

TEST_F(CtlHistory, IsPlottedIntoAFile)
{
    writeFile(kFile, began() + updated("lamp") + kEnded);

    const CtlResult result = runCtl({"history", "--plot", "/tmp/plot.svg"});

    EXPECT_EQ(result.exitCode, 0);
    expectText(result.out, like("WHEN*\n*lamp*\nPlotted to /tmp/plot.svg\n"));
    expectText(readAll("/tmp/plot.svg"), like("<?xml*>lamp</text>*</svg>\n"));
    expectText(runCtl({"--json", "history", "--plot", "/tmp/plot.svg"}).out,
               like("*{\"event\":\"plotted\",\"file\":\"/tmp/plot.svg\"}\n"));
}

TEST_F(CtlHistory, IsPlottedOverNothingButAFile)
{
    writeFile(kFile, began() + updated("lamp") + kEnded);
    writeFile("/tmp/victim", "untouched");
    fs::create_symlink("/tmp/victim", "/tmp/link.svg");
    for (const char* file : {"/tmp/link.svg", "/dev/null", "/tmp"}) {
        const CtlResult result = runCtl({"history", "--plot", file});
        EXPECT_EQ(result.exitCode, 2);
        expectText(result.err, like("quillonctl: cannot write * name another\n"));
    }
    EXPECT_EQ(readAll("/tmp/victim"), "untouched");
    EXPECT_EQ(runCtl({"history", "--plot", "/nowhere/plot.svg"}).exitCode, 9);
    EXPECT_EQ(runCtl({"history", "--plot", ""}).exitCode, 9);
}

}  // namespace
