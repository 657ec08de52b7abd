// Extension module packages: what is in them, that they are always the same, and what is refused.

#include <gmock/gmock.h>

#include <json/json.h>

#include <algorithm>
#include <cstdint>
#include <sstream>
#include <utility>
#include <vector>

#include "support/open-way.h"
#include "support/texts.h"
#include "unit/tools/image-files.h"

namespace quillon::test {
namespace {

/// The file systems' own tools are not in every user's PATH.
constexpr char kToolPath[] = "PATH=$PATH:/usr/sbin:/sbin; ";

class PackageProgram : public ImageFiles
{
protected:
    void SetUp() override
    {
        ImageFiles::SetUp();
        writeFile(directory + "payload", "firmware");
    }

    int run(const std::string& arguments, const std::string& before = "")
    {
        return shell("cd '" + directory + "'; " + before + " " IMAGE_PROGRAM " " + arguments);
    }

    int package(const std::string& arguments, const std::string& before = "")
    {
        return run("package --name tunerempA1 --version 2.0 --payload payload " + arguments,
                   before);
    }

    /// Runs and expects a refusal in a single line, with nothing left behind.
    void expectRefusal(const std::string& arguments, int code, const std::string& reason,
                       const std::string& before = "")
    {
        const std::vector<std::string> namesBefore = names();
        EXPECT_EQ(run("package " + arguments, before), code) << arguments;
        EXPECT_EQ(out, "") << arguments;
        SCOPED_TRACE(arguments);
        expectText(err, like("quillon-image: *"));
        SCOPED_TRACE(arguments);
        expectText(err, like("*" + std::string(reason) + "*"));
        EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
        EXPECT_EQ(names(), namesBefore) << arguments;
    }

    /// Puts a shell script in place of a program of the machine.
    void replaceProgram(const std::string& name, const std::string& script)
    {
        std::filesystem::create_directories(directory + "bin");
        const std::string path = directory + "bin/" + name;
        writeFile(path, "#!/bin/sh\n" + script + "\n");
        std::filesystem::permissions(path, std::filesystem::perms::owner_all);
    }

    bool hasProgram(const std::string& name)
    {
        return shell(kToolPath + ("command -v " + name)) == 0;
    }

    static Json::Value parsed(const std::string& text)
    {
        Json::Value value;
        std::istringstream source(text);
        EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), source, &value, nullptr))
            << text;
        return value;
    }
};

constexpr char kGood[] = "--name tuneremp --version 1 --payload payload ";

/// What holds for every file system.
class PackageOfType : public PackageProgram, public ::testing::WithParamInterface<const char*>
{
protected:
    void SetUp() override
    {
        PackageProgram::SetUp();
        for (const char* tool : squashfs() ? std::vector<const char*>{"mksquashfs", "unsquashfs"}
                                           : std::vector<const char*>{"mke2fs", "debugfs"}) {
            if (!hasProgram(tool)) {
                GTEST_SKIP() << tool << " is not installed";
            }
        }
    }

    bool squashfs() const { return GetParam() == std::string("squashfs"); }

    int build(const std::string& arguments, const std::string& before = "")
    {
        return package(std::string("--type ") + GetParam() + " " + arguments, before);
    }

    /// @return the content of a file at the root of a package.
    std::string contentOf(const std::string& image, const std::string& file)
    {
        const std::string command = squashfs() ? "unsquashfs -cat '" + image + "' " + file
                                               : "debugfs -R 'cat /" + file + "' '" + image + "'";
        EXPECT_EQ(shell(kToolPath + ("cd '" + directory + "'; " + command)), 0) << err;
        return out;
    }

    Json::Value informationOf(const std::string& image)
    {
        return parsed(contentOf(image, "info.json"));
    }

    std::string payload(std::size_t size)
    {
        std::string bytes(size, '\0');
        for (std::size_t i = 0; i < size; ++i) {
            bytes[i] = static_cast<char>(i * 31 + i / 4096);
        }
        writeFile(directory + "payload", bytes);
        return bytes;
    }
};

/// The checksum once more, bit by bit.
std::uint32_t checksumOf(const std::string& bytes)
{
    std::uint32_t crc = 0;
    for (const char byte : bytes) {
        for (unsigned bit = 0; bit < 8; ++bit) {
            const std::uint32_t next = (static_cast<unsigned char>(byte) >> (7 - bit)) & 1U;
            const bool divide = ((crc >> 31U) ^ next) != 0;
            crc = (crc << 1U) ^ (divide ? 0x01B23CA3U : 0U);
        }
    }
    return crc;
}

TEST_P(PackageOfType, HoldsThePayloadByteForByteUnderTheFirmwareName)
{
    const std::string bytes = payload(1000001);
    ASSERT_EQ(build("--output out.img"), 0) << err;
    EXPECT_EQ(out, "out.img: version 2.0, " +
                       std::to_string(std::filesystem::file_size(directory + "out.img")) +
                       " bytes\n");

    EXPECT_EQ(contentOf("out.img", "tunerA1.bin"), bytes);
    EXPECT_EQ(informationOf("out.img").getMemberNames(),
              (Json::Value::Members{"crc", "expected_time", "version"}));
    EXPECT_EQ(informationOf("out.img")["version"], "2.0");
    EXPECT_EQ(informationOf("out.img")["crc"].asUInt(), checksumOf(bytes));
    EXPECT_EQ(informationOf("out.img")["expected_time"].asUInt(), 300U);
}

TEST_P(PackageOfType, BearsTheServicesOwnChecksum)
{
    writeFile(directory + "payload", "123456789");
    ASSERT_EQ(build("--output out.img"), 0) << err;
    EXPECT_EQ(informationOf("out.img")["crc"].asUInt(), 0x6A50465CU);
}

TEST_P(PackageOfType, TellsTheExpectedTime)
{
    ASSERT_EQ(build("--output out.img --expected-time 2147483647"), 0) << err;
    EXPECT_EQ(informationOf("out.img")["expected_time"].asUInt(), 2147483647U);
}

TEST_P(PackageOfType, MayHoldAnEmptyPayload)
{
    payload(0);
    ASSERT_EQ(build("--output out.img"), 0) << err;
    EXPECT_EQ(contentOf("out.img", "tunerA1.bin"), "");
    EXPECT_EQ(informationOf("out.img")["crc"].asUInt(), 0U);
}

TEST_P(PackageOfType, IsForEveryoneToReadAndBelongsToRoot)
{
    ASSERT_EQ(build("--output out.img", "umask 077; chmod 600 payload;"), 0) << err;
    EXPECT_EQ(modeOf(directory + "out.img"), 0644U);

    if (squashfs()) {
        ASSERT_EQ(shell("unsquashfs -lln '" + directory + "out.img' | sed 's/  */ /g'"), 0) << err;
        expectText(out, like("*drwxr-xr-x 0/0 *"));
        expectText(out, like("*-rw-r--r-- 0/0 8 1970-01-01*"));
        return;
    }
    ASSERT_EQ(
        shell(kToolPath + ("debugfs -R 'ls -l' '" + directory + "out.img' | sed 's/  */ /g'")), 0)
        << err;
    expectText(out, like("* 2 40755 (2) 0 0 4096 1-Jan-1970 *"));
    expectText(out, like("* 100644 (1) 0 0 8 1-Jan-1970 *"));
}

TEST_P(PackageOfType, IsTheSameWhoeverMakesItAndWhen)
{
    payload(300000);
    ASSERT_EQ(build("--output one.img"), 0) << err;
    // Another second, owner, mode, environment and place.
    ASSERT_EQ(build("--output elsewhere/another.img",
                    "sleep 1.1; mkdir elsewhere; mv payload moved; cp moved payload;"
                    "chmod 600 payload; chown 1234 payload 2>/dev/null;"
                    "umask 077; SOURCE_DATE_EPOCH=77 LC_ALL=de_DE TZ=Asia/Tokyo"),
              0)
        << err;
    EXPECT_TRUE(readAll(directory + "one.img") == readAll(directory + "elsewhere/another.img"));
}

TEST_P(PackageOfType, IsTheSameFromAnOrdinaryUser)
{
    const std::string asNobody = "setpriv --reuid 65534 --regid 65534 --clear-groups ";
    if (!openWayTo(IMAGE_PROGRAM) || shell(asNobody + IMAGE_PROGRAM " --version") != 0) {
        GTEST_SKIP() << "cannot become another user here";
    }
    std::filesystem::permissions(directory, std::filesystem::perms::all);
    ASSERT_EQ(build("--output one.img"), 0) << err;
    ASSERT_EQ(build("--output another.img", asNobody), 0) << err;
    EXPECT_TRUE(readAll(directory + "one.img") == readAll(directory + "another.img"));
}

TEST_P(PackageOfType, LeavesNothingElseBehind)
{
    ASSERT_EQ(build(""), 0) << err;
    SCOPED_TRACE("named after the package, where nothing else is said");
    expectTexts(names(), {"payload", "tunerempA1.img"});
}

TEST_P(PackageOfType, TakesAnEarlierOnesPlace)
{
    writeFile(directory + "tunerempA1.img", std::string(4000000, 'x'));
    ASSERT_EQ(build(""), 0) << err;
    EXPECT_EQ(contentOf("tunerempA1.img", "tunerA1.bin"), "firmware");
}

TEST_P(PackageOfType, MayHaveBlanksAndQuotesInItsPath)
{
    std::filesystem::create_directory(directory + "a 'b\" $c");
    ASSERT_EQ(build("--output \"a 'b\\\" \\$c/- x.img\""), 0) << err;
    EXPECT_THAT(readAll(directory + "a 'b\" $c/- x.img"), ::testing::Not(""));
}

TEST_P(PackageOfType, DescribesItselfAsJson)
{
    ASSERT_EQ(build("--json --output out.img --expected-time 17"), 0) << err;
    const Json::Value made = parsed(out);
    EXPECT_EQ(made["package"], "out.img");
    EXPECT_EQ(made["name"], "tunerempA1");
    EXPECT_EQ(made["firmware"], "tunerA1.bin");
    EXPECT_EQ(made["version"], "2.0");
    EXPECT_EQ(made["type"], GetParam());
    EXPECT_EQ(made["crc"].asUInt(), checksumOf("firmware"));
    EXPECT_EQ(made["expectedTime"], 17);
    EXPECT_EQ(made["size"].asUInt64(), std::filesystem::file_size(directory + "out.img"));

    ASSERT_EQ(run("info out.img --json"), 0) << err;
    EXPECT_EQ(parsed(out)["package"], "out.img");
    EXPECT_EQ(parsed(out)["type"], GetParam());
    EXPECT_EQ(parsed(out)["size"], made["size"]);
}

INSTANTIATE_TEST_SUITE_P(In, PackageOfType, ::testing::Values("squashfs", "ext4"),
                         [](const auto& type) { return std::string(type.param); });

TEST_F(PackageProgram, LosesTheFirstEmpOfItsNameOnly)
{
    if (!hasProgram("mksquashfs")) {
        GTEST_SKIP() << "mksquashfs is not installed";
    }
    for (const auto& [name, firmware] :
         {std::pair("empemp", "emp.bin"), {"a1empb2emp", "a1b2emp.bin"}, {"EMPemp7", "EMP7.bin"}}) {
        ASSERT_EQ(run(std::string("package --json --version 1 --payload payload --name ") + name),
                  0)
            << err;
        EXPECT_EQ(parsed(out)["firmware"], firmware);
    }
    const std::string longest = std::string(124, 'x') + "emp";
    EXPECT_EQ(run("package --version 1 --payload payload --name " + longest), 0) << err;
}

TEST_F(PackageProgram, IsAnExt4FileSystemThatE2fsckFindsClean)
{
    if (!hasProgram("mke2fs") || !hasProgram("debugfs") || !hasProgram("e2fsck")) {
        GTEST_SKIP() << "mke2fs, debugfs or e2fsck is not installed";
    }
    writeFile(directory + "payload", std::string(5000000, 'x'));
    ASSERT_EQ(package("--type ext4 --output out.img"), 0) << err;
    EXPECT_EQ(shell(kToolPath + ("e2fsck -fn '" + directory + "out.img'")), 0) << out << err;
}

TEST_F(PackageProgram, RefusesANameThatNoPackageHas)
{
    const std::string reason =
        "1 to 127 ASCII letters and digits, 'emp' and the firmware's name among them";
    const std::string rest = "--version 1 --payload payload --name ";
    for (const char* name : {"''", "emp", "tuner", "tunerEMP", "tuner-emp", "../emp", "'emp '",
                             "emp.img", "t\xC3\xBCneremp"}) {
        expectRefusal(rest + name, 2, reason);
    }
    expectRefusal(rest + std::string(125, 'x') + "emp", 2, reason);
}

TEST_F(PackageProgram, RefusesAWrongCommandLine)
{
    expectRefusal("", 2, "is required");
    expectRefusal("--version 1 --payload payload", 2, "--name is required");
    expectRefusal("--name tuneremp --payload payload", 2, "--version is required");
    expectRefusal("--name tuneremp --version 1", 2, "--payload is required");
    expectRefusal("--name tuneremp --payload payload --version ''", 2,
                  "a version has 1 to 63 printable ASCII characters");
    expectRefusal("--name tuneremp --payload payload --version " + std::string(64, '1'), 2,
                  "a version has 1 to 63 printable ASCII characters");
    for (const char* seconds : {"-1", "2147483648", "soon", "1.5"}) {
        expectRefusal(kGood + std::string("--expected-time ") + seconds, 2, "--expected-time");
    }
    expectRefusal(kGood + std::string("--type tar"), 2, "--type: tar not in {squashfs,ext4}");
}

TEST_F(PackageProgram, RefusesFilesThatCannotBeReadOrWritten)
{
    const std::string start = "--name tuneremp --version 1 --payload ";
    expectRefusal(start + "missing", 3, "missing: cannot be read: No such file or directory");
    expectRefusal(start + ".", 3, ".: cannot be read: is a directory");
    expectRefusal(kGood + std::string("--output no-directory/x.img"), 3,
                  "no-directory/x.img: cannot be written: No such file or directory");
    expectRefusal(kGood + std::string("--output /dev/null"), 3,
                  "/dev/null: cannot be written: not a regular file");
}

TEST_F(PackageProgram, SaysWhichPackageBringsAMissingProgram)
{
    if (std::filesystem::exists("/usr/sbin/mksquashfs")) {
        GTEST_SKIP() << "mksquashfs is among the system's programs and cannot be hidden";
    }
    expectRefusal(kGood, 3, "mksquashfs is missing: install the package squashfs-tools",
                  "PATH=/nowhere");
}

TEST_F(PackageProgram, GivesTheReasonOfAProgramThatFails)
{
    replaceProgram("mksquashfs", "echo working; echo 'no space' >&2; echo 'FATAL' >&2; exit 3");
    writeFile(directory + "tuneremp.img", "earlier");
    expectRefusal(kGood, 3, "bin/mksquashfs failed with status 3: no space; FATAL\n",
                  "PATH='" + directory + "bin:/bin:/usr/bin'");
    EXPECT_EQ(readAll(directory + "tuneremp.img"), "earlier");

    replaceProgram("mksquashfs", "kill -TERM $$; printf hsqs >\"$2\"");
    expectRefusal(kGood, 3, "bin/mksquashfs was ended by signal 15\n",
                  "PATH='" + directory + "bin:/bin:/usr/bin'");
}

TEST_F(PackageProgram, ShowsNothingOfAProgramThatEndsWell)
{
    replaceProgram("mksquashfs", "echo talk; echo warning >&2; printf hsqs >\"$2\"");
    EXPECT_EQ(run(std::string("package ") + kGood, "PATH='" + directory + "bin:/bin:/usr/bin'"), 0);
    EXPECT_EQ(err, "");
    EXPECT_EQ(out, "tuneremp.img: version 1, 4 bytes\n");
}

TEST_F(PackageProgram, BelievesDebugfsWhatItComplainsAboutAndNotItsStatus)
{
    replaceProgram("mke2fs", "exit 0");
    replaceProgram("debugfs", "echo 'debugfs 1.47.0 (5-Feb-2023)' >&2; echo 'write: full' >&2");
    expectRefusal(kGood + std::string("--type ext4"), 3, "bin/debugfs failed: write: full\n",
                  "PATH='" + directory + "bin:/bin:/usr/bin'");
}

TEST_F(PackageProgram, RemovesWhatIsTemporaryWhenItIsInterrupted)
{
    replaceProgram("mksquashfs", "kill -TERM $PPID; printf hsqs >\"$2\"");
    const std::vector<std::string> before = names();

    EXPECT_EQ(run(std::string("package ") + kGood + "; exit $?",
                  "PATH='" + directory + "bin:/bin:/usr/bin'"),
              128 + SIGTERM);
    EXPECT_EQ(names(), before);
}

TEST_F(PackageProgram, GoesOnWhenTheSignalIsIgnored)
{
    replaceProgram("mksquashfs", "kill -HUP $PPID; printf hsqs >\"$2\"");

    EXPECT_EQ(run(std::string("package ") + kGood,
                  "trap '' HUP; PATH='" + directory + "bin:/bin:/usr/bin'"),
              0)
        << err;
    EXPECT_EQ(readAll(directory + "tuneremp.img"), "hsqs");
}

TEST_F(PackageProgram, IsNotConfusedByAStickImageThatBearsItsMark)
{
    makeImage(directory + "tuner.bin", "a", "2.0", std::string(5000, 'x'));
    std::string image = readAll(directory + "tuner.bin");
    writeFile(directory + "tuner.bin", image.replace(0, 4, "hsqs").replace(1080, 2, "\x53\xEF"));

    ASSERT_EQ(run("info tuner.bin --json"), 0) << err;
    EXPECT_EQ(parsed(out)["image"], "tuner.bin");
    EXPECT_FALSE(parsed(out).isMember("package"));
}

}  // namespace
}  // namespace quillon::test
