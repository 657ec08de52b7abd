// quillon-unit quarantine, on a virtual device.

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>

#include "support/files.h"
#include "support/process.h"
#include "support/texts.h"
#include "unit/platform/notify-socket.h"

namespace {

namespace fs = std::filesystem;
using quillon::test::expectText;
using quillon::test::like;
using quillon::test::readAll;
using quillon::test::Result;
using quillon::test::runInShell;
using quillon::test::writeFile;

constexpr const char* kRecord = "/run/quillon/run/start.jsonl";
constexpr const char* kModule = "/usr/fwupdate/controls/tuner.so";
constexpr const char* kMoved = "/usr/fwupdate/quarantine/tuner.so";
constexpr const char* kLoadingTuner = "{\"event\":\"loading\",\"module\":\"tuner\"}\n";

/// A device with the module "tuner", whose service starts and ends.
class Quarantine : public testing::Test
{
protected:
    Quarantine()
    {
        umask(0022);
        fs::remove_all("/usr/fwupdate/quarantine");
        writeFile(kModule, "a library");
    }

    /// @param lines  of its record, behind the first
    static void start(const std::string& lines)
    {
        static int starts = 0;
        writeFile(kRecord,
                  "{\"event\":\"began\",\"clock\":" + std::to_string(++starts) + "}\n" + lines);
    }

    static Result judge(const std::string& result = "signal")
    {
        return runInShell("SERVICE_RESULT=" + result + " " QUILLON_UNIT_PROGRAM " quarantine");
    }

    /// A start that ends so, and what is said of it.
    static std::string ends(const std::string& lines, const std::string& result = "signal")
    {
        start(lines);
        const Result said = judge(result);
        EXPECT_EQ(said.status, 0) << said.err;
        return said.err;
    }

    static std::string endsAtTunerThreeTimes()
    {
        ends(kLoadingTuner);
        ends(kLoadingTuner);
        return ends(kLoadingTuner);
    }
};

// The service overwrites blanks with the next line, and may be killed meanwhile.
TEST_F(Quarantine, ReadsALineWithBlanksAndHalfOfTheNextBehindIt)
{
    const std::string loading = "{\"event\":\"loading\",\"module\":\"tuner\"}";
    expectText(ends(loading + std::string(4000, ' ') + "\n"), like("*tuner, 1 of 3 times*"));
    expectText(ends(loading + " {\"event\":\"loa" + std::string(3985, ' ') + "\n"),
               like("*tuner, 2 of 3 times*"));
}

TEST_F(Quarantine, TakesAModuleAfterTheThirdStartInARowThatEndsAtIt)
{
    const std::string loaded = "{\"event\":\"loaded\",\"module\":\"lamp\",\"result\":0}\n";
    expectText(ends(loaded + kLoadingTuner), like("quillon-unit: *tuner, 1 of 3 times*"));
    expectText(ends(loaded + kLoadingTuner, "timeout"), like("*tuner, 2 of 3 times*"));
    EXPECT_TRUE(fs::exists(kModule));

    const std::string said = ends(loaded + kLoadingTuner, "core-dump");

    EXPECT_FALSE(fs::exists(kModule));
    EXPECT_EQ(readAll(kMoved), "a library");
    const std::string command =
        "mv -n /usr/fwupdate/quarantine/tuner.so /usr/fwupdate/controls/ && systemctl restart "
        "quillon";
    expectText(said, like("quillon-unit: the service has ended at 3 starts in a row or more while "
                          "it loaded the module tuner; that module is in quarantine now*: " +
                          command + "\n"));
    EXPECT_EQ(runInShell(command.substr(0, command.find(" &&"))).status, 0);
    EXPECT_EQ(readAll(kModule), "a library");
}

TEST_F(Quarantine, CountsAStartOnceHoweverOftenTheNextIsRefused)
{
    start(kLoadingTuner);
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(judge("exit-code").status, 0);
    }
    EXPECT_TRUE(fs::exists(kModule));
}

TEST_F(Quarantine, BeginsToCountAnewAfterAnyOtherEnd)
{
    const std::string loaded = "{\"event\":\"loaded\",\"module\":\"tuner\",\"result\":0}\n";
    const std::string serving = loaded + "{\"event\":\"serving\",\"key\":true}\n";
    const std::pair<std::string, const char*> others[] = {
        {kLoadingTuner, "success"},
        {"", "signal"},
        {kLoadingTuner + loaded, "signal"},
        {kLoadingTuner + serving, "signal"},
        {"{\"event\":\"loading\",\"module\":\"lamp\"}\n", "signal"},
    };
    for (const auto& [lines, result] : others) {
        ends(serving, "success");
        ends(kLoadingTuner);
        ends(kLoadingTuner);
        ends(lines, result);
        ends(kLoadingTuner);
        ends(kLoadingTuner);
        EXPECT_TRUE(fs::exists(kModule)) << lines << result;
    }
}

// Most devices are switched off, not stopped.
TEST_F(Quarantine, BeginsToCountAnewWhenAStartHasSucceeded)
{
    ends(kLoadingTuner);
    ends(kLoadingTuner);
    start("{\"event\":\"serving\"}\n");
    EXPECT_EQ(runInShell(QUILLON_UNIT_PROGRAM " quarantine").status, 0);

    ends(kLoadingTuner);

    EXPECT_TRUE(fs::exists(kModule));
}

TEST_F(Quarantine, WritesNothingAtAUsualStart)
{
    start("{\"event\":\"serving\"}\n");
    EXPECT_EQ(runInShell(QUILLON_UNIT_PROGRAM " quarantine").status, 0);
    ends("{\"event\":\"serving\"}\n", "success");

    EXPECT_FALSE(fs::exists("/var/lib/quillon/quarantine-count.json"));
}

TEST_F(Quarantine, TakesTheModuleAgainThatWasPutBackUnmended)
{
    endsAtTunerThreeTimes();
    writeFile(kModule, "another library");
    ends("{\"event\":\"serving\"}\n", "success");

    endsAtTunerThreeTimes();

    EXPECT_FALSE(fs::exists(kModule));
    EXPECT_EQ(readAll(kMoved), "another library");
}

TEST_F(Quarantine, IsOpenToEverybodysEyesWhateverTheMask)
{
    umask(0777);
    endsAtTunerThreeTimes();
    umask(0022);

    struct stat status = {};
    ASSERT_EQ(stat("/usr/fwupdate/quarantine", &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0755U);
}

struct Trap
{
    const char* name;
    const char* module;  ///< as JSON has it, in the record
    std::function<void()> lay;
};

std::ostream& operator<<(std::ostream& stream, const Trap& trap)
{
    return stream << trap.name;
}

/// What the service's user could have written, and somebody else have laid.
class TrappedQuarantine : public Quarantine, public testing::WithParamInterface<Trap>
{
};

TEST_P(TrappedQuarantine, MovesNothing)
{
    writeFile("/usr/fwupdate/precious.so", "precious");
    GetParam().lay();
    const auto before = [] {
        std::string list;
        for (const auto& entry : fs::recursive_directory_iterator("/usr/fwupdate")) {
            const bool isNew = entry.path() == "/usr/fwupdate/quarantine";
            list += isNew ? "" : entry.path().string() + "\n";
        }
        return list;
    };
    const std::string list = before();

    const std::string line =
        std::string("{\"event\":\"loading\",\"module\":") + GetParam().module + "}\n";
    for (int i = 0; i < 4; ++i) {
        ends(line);
    }

    EXPECT_EQ(before(), list);
    EXPECT_EQ(readAll("/usr/fwupdate/precious.so"), "precious");
}

INSTANTIATE_TEST_SUITE_P(
    OfEachKind, TrappedQuarantine,
    testing::Values(Trap{"NameThatLeadsUp", "\"../precious\"", [] {}},
                    Trap{"AbsoluteName", "\"/usr/fwupdate/precious\"", [] {}},
                    Trap{"EmptyName", "\"\"", [] { writeFile("/usr/fwupdate/controls/.so", ""); }},
                    Trap{"NameWithAnEnd", "\"tuner.so\\u0000\"", [] {}},
                    Trap{"NoName", "[]", [] {}}, Trap{"MissingFile", "\"horn\"", [] {}},
                    Trap{"Link", "\"link\"",
                         [] {
                             fs::create_symlink("/usr/fwupdate/precious.so",
                                                "/usr/fwupdate/controls/link.so");
                         }},
                    Trap{"Directory", "\"folder\"",
                         [] { fs::create_directory("/usr/fwupdate/controls/folder.so"); }},
                    Trap{"Fifo", "\"fifo\"",
                         [] { mkfifo("/usr/fwupdate/controls/fifo.so", 0600); }},
                    Trap{"QuarantineOpenToOthers", "\"tuner\"",
                         [] {
                             fs::create_directory("/usr/fwupdate/quarantine");
                             chmod("/usr/fwupdate/quarantine", 0777);
                         }},
                    Trap{"QuarantineThatIsALink", "\"tuner\"",
                         [] {
                             fs::create_directory("/usr/fwupdate/elsewhere");
                             fs::create_symlink("elsewhere", "/usr/fwupdate/quarantine");
                         }}),
    [](const auto& trap) { return trap.param.name; });

TEST_F(Quarantine, TakesNothingByARecordThatIsNotTheServices)
{
    const std::string began = "{\"event\":\"began\",\"clock\":";
    const std::string deep(100000, '[');
    for (const std::string& lines :
         {std::string("no JSON\n"), std::string("\n"), "{\"module\":" + deep + "\n",
          std::string("{\"event\":\"loading\",\"module\":\"tuner\"}"),  // cut
          std::string("{\"event\":[],\"module\":\"tuner\"}\n")}) {
        for (int i = 0; i < 4; ++i) {
            ends(lines);
        }
        EXPECT_TRUE(fs::exists(kModule)) << lines.substr(0, 80);
    }
    for (int i = 0; i < 4; ++i) {
        fs::remove(kRecord);
        writeFile("/run/quillon/run/elsewhere", began + std::to_string(i) + "}\n" + kLoadingTuner);
        fs::create_symlink("elsewhere", kRecord);
        EXPECT_EQ(judge().status, 0);
    }
    EXPECT_TRUE(fs::exists(kModule)) << "a link";
}

TEST_F(Quarantine, SaysWhereItCannotMoveAndLetsTheServiceStart)
{
    if (mount("/usr/fwupdate", "/usr/fwupdate", nullptr, MS_BIND, nullptr) != 0 ||
        mount(nullptr, "/usr/fwupdate", nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) != 0) {
        GTEST_SKIP() << "nothing can be mounted here";
    }

    const std::string said = endsAtTunerThreeTimes();
    const std::string again = ends(kLoadingTuner);

    umount("/usr/fwupdate");
    expectText(
        said,
        like("*module tuner; it cannot be moved away: *Read-only file system; take it out by hand: "
             "/usr/fwupdate/controls/tuner.so\n"));
    EXPECT_EQ(again, said);
    EXPECT_TRUE(fs::exists(kModule));
}

TEST_F(Quarantine, FailsWhereItCannotCount)
{
    fs::create_directory("/var/lib/quillon/quarantine-count.json");

    start(kLoadingTuner);
    const Result result = judge();

    EXPECT_EQ(result.status, 1);
    expectText(result.err, like("quillon-unit: cannot keep /var/lib/quillon/quarantine-count.json: "
                                "*\n"));
    EXPECT_TRUE(fs::exists(kModule));
}

TEST_F(Quarantine, IsShownInTheUnitsStatusBeforeTheNextStart)
{
    NotifySocket manager("/tmp/notify");
    const auto status = [&] {
        EXPECT_EQ(runInShell(QUILLON_UNIT_PROGRAM " prepare root").status, 0);
        const std::vector<std::string> states = manager.received();
        return states.empty() ? "" : states.front();
    };
    start("{\"event\":\"serving\"}\n");
    EXPECT_EQ(status(), "");
    start("{\"event\":\"loading\",\"module\":\"la\\u001bmp\"}\n");
    EXPECT_EQ(
        status(),
        "STATUS=the start before ended at the module $'la\\x1bmp'; what now: quillonctl doctor");

    endsAtTunerThreeTimes();
    start("{\"event\":\"serving\"}\n");

    EXPECT_EQ(status(), "STATUS=without what is in quarantine: tuner; what now: quillonctl doctor");

    writeFile(kModule, "a mended library");
    EXPECT_EQ(status(), "");
}

}  // namespace
