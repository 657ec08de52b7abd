#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/secure-storage.h"
#include "provisioned-device.h"
#include "support/files.h"
#include "support/texts.h"

namespace {

namespace fs = std::filesystem;
using namespace quillon::test;
using testing::HasSubstr;

constexpr int kUnreadable = 1;
constexpr int kAlreadyInstalled = 2;
constexpr int kMalformed = 4;
constexpr int kNotTrusted = 5;
constexpr int kStorageFailed = 8;
constexpr int kNobodyTrusted = 9;

const std::string kKey("0123456789abcdef\0\n\xff 23456789abcd", 32);

/// Each thread's own: the worker of a download comes this way as well.
std::vector<std::string>& diskCalls()
{
    thread_local std::vector<std::string> calls;
    return calls;
}

}  // namespace

// Stand in front of the C library's, to see in which order things reach the disk.
extern "C" int fsync(int file)
{
    struct stat status = {};
    const bool isDirectory = fstat(file, &status) == 0 && S_ISDIR(status.st_mode);
    diskCalls().emplace_back(isDirectory ? "sync directory" : "sync file");
    return 0;
}

extern "C" int rename(const char* from, const char* to) noexcept
{
    diskCalls().push_back("rename to " + fs::path(to).filename().string());
    return renameat(AT_FDCWD, from, AT_FDCWD, to);
}

namespace {

class Provisioning : public ProvisionedDevice
{
protected:
    void expectRefused(const std::string& bytes, int result)
    {
        EXPECT_EQ(install(bytes), result);
        expectTexts(captured.lines(), {like(std::string("QUILLON-PLATFORM E *") + kPackage + "*")});
        expectTexts(namesInDirectory(), {});
    }
};

TEST_F(Provisioning, PlacesThePayloadIntoTheStorage)
{
    umask(0);
    EXPECT_EQ(install(package("quillon", kKey)), 0);
    expectTexts(namesInDirectory(), {"quillon"});
    EXPECT_EQ(readAll(pathOf("quillon")), kKey);
    EXPECT_EQ(fs::status(pathOf("quillon")).permissions(), fs::perms(0600));
    EXPECT_EQ(fs::status(kDirectory).permissions(), fs::perms(0700));
    expectTextAmong(captured.lines(), like(std::string("QUILLON-PLATFORM I *") + kPackage +
                                           "*brought the item quillon, signed by CN = a maker*"));
}

TEST_F(Provisioning, MakesTheDirectoriesAboveUnwritableForOthers)
{
    fs::remove("/var/lib/quillon");
    umask(0);
    EXPECT_EQ(install(package("quillon", kKey)), 0);
    EXPECT_EQ(fs::status("/var/lib/quillon").permissions(), fs::perms(0755));
}

TEST_F(Provisioning, SyncsTheBytesBeforeTheyTakeTheItemsName)
{
    ASSERT_EQ(install(package("quillon", kKey)), 0);
    expectTexts(diskCalls(), {"sync file", "rename to quillon", "sync directory"});
}

TEST_F(Provisioning, GivesWhatTheStorageThenReads)
{
    ASSERT_EQ(install(package("quillon", kKey)), 0);
    ss_credential credential = {};
    ss_init_credential(&credential, 0, 0, 0, 0, 0, 1, 0);
    unsigned char* data = nullptr;
    size_t size = 0;
    ASSERT_EQ(ss_read(&data, &size, 0, 0, "quillon", &credential, 33), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(data), size), kKey);
    ss_free_buffer(data);
}

TEST_F(Provisioning, AnswersTwoWhenTheSameBytesAreThere)
{
    ASSERT_EQ(install(package("quillon", kKey)), 0);
    struct stat before = {};
    ASSERT_EQ(stat(pathOf("quillon").c_str(), &before), 0);
    EXPECT_EQ(install(package("quillon", kKey)), kAlreadyInstalled);
    struct stat after = {};
    ASSERT_EQ(stat(pathOf("quillon").c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino);
}

TEST_F(Provisioning, ReplacesOtherBytes)
{
    ASSERT_EQ(install(package("quillon", "old key")), 0);
    EXPECT_EQ(install(package("quillon", kKey)), 0);
    EXPECT_EQ(readAll(pathOf("quillon")), kKey);
}

TEST_F(Provisioning, ClosesAnItemThatOthersCouldRead)
{
    makeDirectory();
    writeFile(pathOf("quillon"), kKey, 0644);
    EXPECT_EQ(install(package("quillon", kKey)), 0);
    EXPECT_EQ(fs::status(pathOf("quillon")).permissions(), fs::perms(0600));
}

TEST_F(Provisioning, ReplacesALinkInsteadOfFollowingIt)
{
    makeDirectory();
    writeFile("/tmp/quillon-victim", "precious");
    fs::create_symlink("/tmp/quillon-victim", pathOf("quillon"));
    EXPECT_EQ(install(package("quillon", kKey)), 0);
    EXPECT_EQ(readAll("/tmp/quillon-victim"), "precious");
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(pathOf("quillon"))));
    fs::remove("/tmp/quillon-victim");
}

TEST_F(Provisioning, RefusesWhatIsNotSigned)
{
    expectRefused(contentFor("quillon", kKey), kMalformed);
    expectText(captured.text(), like("*bears no signature*"));
    expectRefused("", kMalformed);
    expectRefused("noise", kMalformed);
}

TEST_F(Provisioning, RefusesWhatAStrangerHasSigned)
{
    const Maker stranger = makeMaker();
    expectRefused(packageBy(stranger, "quillon", kKey), kNotTrusted);
    expectText(captured.text(),
               like("*" + std::string("not signed by anyone trusted in ") + kCertificates + "*"));
    trust("second.pem", pemOf(stranger));
    EXPECT_EQ(install(packageBy(stranger, "quillon", kKey)), 0);
}

TEST_F(Provisioning, RefusesWhatWasChangedAfterwards)
{
    std::string changed = package("quillon", kKey);
    changed[changed.find(kKey)] = '9';
    expectRefused(changed, kNotTrusted);
}

TEST_F(Provisioning, TrustsNobodyWithoutACertificate)
{
    fs::remove_all(kCertificates);
    expectRefused(package("quillon", kKey), kNobodyTrusted);
    EXPECT_THAT(captured.text(),
                HasSubstr(std::string("no certificate (*.pem) in ") + kCertificates));
    writeFile(kCertificates, "not a directory");
    expectRefused(package("quillon", kKey), kNobodyTrusted);
    expectText(captured.text(), like("*Not a directory*"));
}

TEST_F(Provisioning, PassesOverFilesThatAreNoCertificates)
{
    const std::string usable = pemOf(maker);
    trust("0-empty.pem", "");
    trust("1-noise.pem", "noise");
    trust("2-cut.pem", usable.substr(0, usable.size() / 2));
    trust("3-huge.pem", std::string(100000, 'x'));
    trust("not-looked-at.txt", "noise");
    fs::create_directory(std::string(kCertificates) + "/4-directory.pem");
    EXPECT_EQ(install(package("quillon", kKey)), 0);
    for (const char* name : {"0-empty", "1-noise", "2-cut", "3-huge", "4-directory"}) {
        expectTextAmong(captured.lines(),
                        like(std::string("*certificate passed over*") + name + "*"));
    }
    expectNoText(captured.text(), like("*not-looked-at*"));
}

TEST_F(Provisioning, TrustsAllCertificatesOfAFile)
{
    const Maker second = makeMaker();
    trust("maker.pem", pemOf(maker) + "a comment\n" + pemOf(second));
    EXPECT_EQ(install(packageBy(second, "quillon", kKey)), 0);
}

TEST_F(Provisioning, RefusesNamesThatLeadElsewhere)
{
    for (const std::string& name :
         {std::string(), std::string("."), std::string(".."), std::string("../quillon"),
          std::string("/etc/passwd"), std::string("a/b"), std::string(".hidden"),
          std::string("two words"), std::string("a\0b", 3), std::string("quillon.cred"),
          std::string(65, 'x')}) {
        SCOPED_TRACE(name);
        expectRefused(package(name, kKey), kMalformed);
    }
    EXPECT_FALSE(fs::exists("/var/lib/quillon/quillon"));
}

TEST_F(Provisioning, TakesTheLongestName)
{
    EXPECT_EQ(install(package(std::string(64, 'x'), kKey)), 0);
}

TEST_F(Provisioning, TakesOneToSixtyFourKibibytes)
{
    EXPECT_EQ(install(package("small", "k")), 0);
    EXPECT_EQ(install(package(std::string(64, 'x'), std::string(65536, 'k'))), 0);
    fs::remove_all(kDirectory);
    expectRefused(package("quillon", ""), kMalformed);
    expectRefused(package("quillon", std::string(65537, 'k')), kMalformed);
    expectRefused(package("quillon", std::string(200000, 'k')), kMalformed);
}

TEST_F(Provisioning, RefusesAHeadThatIsNotExactlyAsItHasToBe)
{
    for (const char* head :
         {"QUILLON-PROVISION 2\nitem quillon\n\n", "QUILLON-PROVISION 1 \nitem quillon\n\n",
          "QUILLON-PROVISION 1\r\nitem quillon\n\n", "\nQUILLON-PROVISION 1\nitem quillon\n\n",
          "QUILLON-PROVISION 1\nitem quillon\nitem quillon\n\n",
          "QUILLON-PROVISION 1\nitem  quillon\n\n", "QUILLON-PROVISION 1\nItem quillon\n\n",
          "QUILLON-PROVISION 1\nitem quillon\nextra line\n\n", "QUILLON-PROVISION 1\nitem quillon",
          "QUILLON-PROVISION 1\n\n", ""}) {
        SCOPED_TRACE(head);
        expectRefused(signedBy(maker, head + kKey), kMalformed);
    }
}

TEST_F(Provisioning, RefusesAMissingPackage)
{
    captured.clear();
    EXPECT_EQ(sdp_install_from_file("/tmp/no-such-package", 2, 0), kUnreadable);
    expectTexts(captured.lines(), {like("*No such file*")});
    const char* volatile nothing = nullptr;
    captured.clear();
    EXPECT_EQ(sdp_install_from_file(nothing, 2, 0), kUnreadable);
    expectTexts(captured.lines(), {like("*without a package*")});
}

TEST_F(Provisioning, RefusesADirectoryAndDoesNotWaitForAFifo)
{
    EXPECT_EQ(sdp_install_from_file("/tmp", 2, 0), kUnreadable);
    ASSERT_EQ(mkfifo(kPackage, 0600), 0);
    captured.clear();
    EXPECT_EQ(sdp_install_from_file(kPackage, 2, 0), kUnreadable);
    expectTexts(captured.lines(), {like("*not a regular file*")});
}

TEST_F(Provisioning, RefusesAHugePackageWithoutReadingIt)
{
    writeFile(kPackage, package("quillon", kKey));
    fs::resize_file(kPackage, std::uintmax_t(3) << 30U);
    captured.clear();
    EXPECT_EQ(sdp_install_from_file(kPackage, 2, 0), kMalformed);
    expectTexts(captured.lines(), {like("*too large*")});
}

TEST_F(Provisioning, LeavesTheOldItemAndNothingElseWhenTheDiskRefuses)
{
    ASSERT_EQ(install(package("quillon", "old key")), 0);
    writeFile(kPackage, package("quillon", kKey));
    const rlimit tiny = {8, RLIM_INFINITY};
    // Standard error has to stay writable: the limit is for regular files.
    int ends[2] = {-1, -1};
    ASSERT_EQ(pipe(ends), 0);
    const int original = dup(STDERR_FILENO);
    dup2(ends[1], STDERR_FILENO);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &tiny), 0);
    const int result = sdp_install_from_file(kPackage, 2, 0);
    const rlimit none = {RLIM_INFINITY, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &none);
    dup2(original, STDERR_FILENO);

    EXPECT_EQ(result, kStorageFailed);
    expectTexts(namesInDirectory(), {"quillon"});
    EXPECT_EQ(readAll(pathOf("quillon")), "old key");
}

TEST_F(Provisioning, LeavesNothingBehindWhenADirectoryIsInTheItemsPlace)
{
    makeDirectory();
    fs::create_directories(pathOf("quillon/inside"));
    EXPECT_EQ(install(package("quillon", kKey)), kStorageFailed);
    expectTexts(namesInDirectory(), {"quillon"});
}

TEST_F(Provisioning, FailsWhereTheStorageCannotBeADirectory)
{
    fs::create_directories("/var/lib/quillon");
    writeFile(kDirectory, "not a directory");
    EXPECT_EQ(install(package("quillon", kKey)), kStorageFailed);
    expectText(captured.text(), like("*Not a directory*"));
}

TEST_F(Provisioning, FailuresSurviveTheServicesClearingOfBitOne)
{
    for (const int failure :
         {kUnreadable, kMalformed, kNotTrusted, kStorageFailed, kNobodyTrusted}) {
        EXPECT_EQ(failure & ~2, failure);
    }
}

}  // namespace
