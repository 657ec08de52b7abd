#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "item-folder.h"
#include "platform/secure-storage.h"

namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

constexpr int kUnreadable = 1;
constexpr int kAlreadyInstalled = 2;
constexpr int kMalformed = 4;
constexpr int kDamaged = 5;
constexpr int kStorageFailed = 8;

constexpr char kPackage[] = "/tmp/quillon-package.bin";
const std::string kKey = "0123456789abcdef\0\n\xff 23456789abcd";
const std::string kHead = "QUILLON-PROVISION 1\n";

std::string sha256(const std::string& bytes)
{
    unsigned char digest[EVP_MAX_MD_SIZE] = {};
    unsigned int size = 0;
    EXPECT_EQ(EVP_Digest(bytes.data(), bytes.size(), digest, &size, EVP_sha256(), nullptr), 1);
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (unsigned int i = 0; i < size; ++i) {
        text += kDigits[digest[i] >> 4U];
        text += kDigits[digest[i] & 15U];
    }
    return text;
}

std::string package(const std::string& item, const std::string& payload)
{
    return kHead + "item " + item + "\nsha256 " + sha256(payload) + "\n\n" + payload;
}

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
    const bool isFolder = fstat(file, &status) == 0 && S_ISDIR(status.st_mode);
    diskCalls().emplace_back(isFolder ? "sync folder" : "sync file");
    return 0;
}

extern "C" int rename(const char* from, const char* to) noexcept
{
    diskCalls().push_back("rename to " + fs::path(to).filename().string());
    return renameat(AT_FDCWD, from, AT_FDCWD, to);
}

namespace {

class Provisioning : public ItemFolder
{
protected:
    void TearDown() override
    {
        fs::remove_all(kPackage);
        ItemFolder::TearDown();
    }

    int install(const std::string& bytes)
    {
        writeFile(kPackage, bytes);
        captured.clear();
        return sdp_install_from_file(kPackage, 2, 0);
    }

    void expectRefused(const std::string& bytes, int result)
    {
        EXPECT_EQ(install(bytes), result);
        EXPECT_THAT(captured.lines(),
                    ElementsAre(AllOf(StartsWith("QUILLON-PLATFORM E "), HasSubstr(kPackage))));
        EXPECT_THAT(namesInFolder(), IsEmpty());
    }
};

TEST_F(Provisioning, PlacesThePayloadIntoTheStorage)
{
    umask(0);
    EXPECT_EQ(install(package("quillon", kKey)), 0);
    EXPECT_THAT(namesInFolder(), ElementsAre("quillon"));
    EXPECT_EQ(readFile(pathOf("quillon")), kKey);
    EXPECT_EQ(fs::status(pathOf("quillon")).permissions(), fs::perms(0600));
    EXPECT_EQ(fs::status(kFolder).permissions(), fs::perms(0700));
    EXPECT_EQ(captured.text(), "");
}

TEST_F(Provisioning, MakesTheFoldersAboveUnwritableForOthers)
{
    fs::remove("/var/lib/quillon");
    umask(0);
    EXPECT_EQ(install(package("quillon", kKey)), 0);
    EXPECT_EQ(fs::status("/var/lib/quillon").permissions(), fs::perms(0755));
}

TEST_F(Provisioning, SyncsTheBytesBeforeTheyTakeTheItemsName)
{
    ASSERT_EQ(install(package("quillon", kKey)), 0);
    EXPECT_THAT(diskCalls(), ElementsAre("sync file", "rename to quillon", "sync folder"));
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
    EXPECT_EQ(readFile(pathOf("quillon")), kKey);
}

TEST_F(Provisioning, ClosesAnItemThatOthersCouldRead)
{
    makeFolder();
    writeFile(pathOf("quillon"), kKey, 0644);
    EXPECT_EQ(install(package("quillon", kKey)), 0);
    EXPECT_EQ(fs::status(pathOf("quillon")).permissions(), fs::perms(0600));
}

TEST_F(Provisioning, ReplacesALinkInsteadOfFollowingIt)
{
    makeFolder();
    writeFile("/tmp/quillon-victim", "precious");
    fs::create_symlink("/tmp/quillon-victim", pathOf("quillon"));
    EXPECT_EQ(install(package("quillon", kKey)), 0);
    EXPECT_EQ(readFile("/tmp/quillon-victim"), "precious");
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(pathOf("quillon"))));
    fs::remove("/tmp/quillon-victim");
}

TEST_F(Provisioning, RefusesAPackageThatEndsTooEarlyWhereverItEnds)
{
    const std::string whole = package("quillon", kKey);
    for (std::size_t length = 0; length < whole.size(); ++length) {
        SCOPED_TRACE(length);
        const bool inPayload = length > whole.size() - kKey.size();
        expectRefused(whole.substr(0, length), inPayload ? kDamaged : kMalformed);
    }
}

TEST_F(Provisioning, StoresNothingUnderTheNameWhenAnyBitIsFlipped)
{
    const std::string whole = package("quillon", kKey);
    const std::size_t name = whole.find("quillon");
    for (std::size_t bit = 0; bit < whole.size() * 8; ++bit) {
        SCOPED_TRACE(bit);
        std::string damaged = whole;
        damaged[bit / 8] = static_cast<char>(damaged[bit / 8] ^ (1 << (bit % 8)));
        const bool inName = bit / 8 >= name && bit / 8 < name + 7;
        const int result = install(damaged);
        if (inName && result == 0) {  // the name of another item is as good a name
            EXPECT_EQ(namesInFolder().size(), 1U);
            EXPECT_FALSE(fs::exists(pathOf("quillon")));
            fs::remove_all(kFolder);
            continue;
        }
        EXPECT_THAT(result, testing::AnyOf(kMalformed, kDamaged));
        EXPECT_EQ(captured.lines().size(), 1U);
        EXPECT_THAT(namesInFolder(), IsEmpty());
    }
}

TEST_F(Provisioning, RefusesBytesThatFollowThePayload)
{
    expectRefused(package("quillon", kKey) + "x", kDamaged);
}

TEST_F(Provisioning, RefusesNamesThatLeadElsewhere)
{
    for (const std::string& name :
         {std::string(), std::string("."), std::string(".."), std::string("../quillon"),
          std::string("/etc/passwd"), std::string("a/b"), std::string(".hidden"),
          std::string("two words"), std::string("a\0b", 3), std::string(65, 'x')}) {
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
    fs::remove_all(kFolder);
    expectRefused(package("quillon", ""), kMalformed);
    expectRefused(package("quillon", std::string(65537, 'k')), kMalformed);
    expectRefused(package("quillon", std::string(100000, 'k')), kMalformed);
}

TEST_F(Provisioning, RefusesAHeadThatIsNotExactlyAsItHasToBe)
{
    const std::string digest = sha256(kKey);
    std::string upper = digest;
    for (char& c : upper) {
        c = static_cast<char>(c >= 'a' ? c - 'a' + 'A' : c);
    }
    const std::string item = "item quillon\n";
    const std::string sum = "sha256 " + digest + "\n";
    expectRefused("QUILLON-PROVISION 2\n" + item + sum + "\n" + kKey, kMalformed);
    expectRefused("QUILLON-PROVISION 1 \n" + item + sum + "\n" + kKey, kMalformed);
    expectRefused("QUILLON-PROVISION 1\r\n" + item + sum + "\n" + kKey, kMalformed);
    expectRefused("\n" + kHead + item + sum + "\n" + kKey, kMalformed);
    expectRefused(kHead + sum + item + "\n" + kKey, kMalformed);
    expectRefused(kHead + item + item + sum + "\n" + kKey, kMalformed);
    expectRefused(kHead + "item  quillon\n" + sum + "\n" + kKey, kMalformed);
    expectRefused(kHead + "Item quillon\n" + sum + "\n" + kKey, kMalformed);
    expectRefused(kHead + item + "sha256 " + upper + "\n\n" + kKey, kMalformed);
    expectRefused(kHead + item + "sha256 " + digest + "0\n\n" + kKey, kMalformed);
    expectRefused(kHead + item + "sha256 " + digest.substr(1) + "\n\n" + kKey, kMalformed);
    expectRefused(kHead + item + sum + "extra line\n\n" + kKey, kMalformed);
}

TEST_F(Provisioning, RefusesAMissingPackage)
{
    captured.clear();
    EXPECT_EQ(sdp_install_from_file("/tmp/no-such-package", 2, 0), kUnreadable);
    EXPECT_THAT(captured.lines(), ElementsAre(HasSubstr("No such file")));
    const char* volatile nothing = nullptr;
    captured.clear();
    EXPECT_EQ(sdp_install_from_file(nothing, 2, 0), kUnreadable);
    EXPECT_THAT(captured.lines(), ElementsAre(HasSubstr("without a package")));
}

TEST_F(Provisioning, RefusesAFolderAndDoesNotWaitForAFifo)
{
    EXPECT_EQ(sdp_install_from_file("/tmp", 2, 0), kUnreadable);
    ASSERT_EQ(mkfifo(kPackage, 0600), 0);
    captured.clear();
    EXPECT_EQ(sdp_install_from_file(kPackage, 2, 0), kUnreadable);
    EXPECT_THAT(captured.lines(), ElementsAre(HasSubstr("not a regular file")));
}

TEST_F(Provisioning, RefusesAHugePackageWithoutReadingIt)
{
    writeFile(kPackage, package("quillon", kKey));
    fs::resize_file(kPackage, std::uintmax_t(3) << 30U);
    captured.clear();
    EXPECT_EQ(sdp_install_from_file(kPackage, 2, 0), kMalformed);
    EXPECT_THAT(captured.lines(), ElementsAre(HasSubstr("too large")));
}

TEST_F(Provisioning, LeavesTheOldItemAndNothingElseWhenTheDiskRefuses)
{
    ASSERT_EQ(install(package("quillon", "old key")), 0);
    writeFile(kPackage, package("quillon", kKey));
    std::signal(SIGXFSZ, SIG_IGN);
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
    EXPECT_THAT(namesInFolder(), ElementsAre("quillon"));
    EXPECT_EQ(readFile(pathOf("quillon")), "old key");
}

TEST_F(Provisioning, LeavesNothingBehindWhenAFolderIsInTheItemsPlace)
{
    makeFolder();
    fs::create_directories(pathOf("quillon/inside"));
    EXPECT_EQ(install(package("quillon", kKey)), kStorageFailed);
    EXPECT_THAT(namesInFolder(), ElementsAre("quillon"));
}

TEST_F(Provisioning, FailsWhereTheStorageCannotBeAFolder)
{
    fs::create_directories("/var/lib/quillon");
    writeFile(kFolder, "not a folder");
    EXPECT_EQ(install(package("quillon", kKey)), kStorageFailed);
    EXPECT_THAT(captured.text(), HasSubstr("Not a directory"));
}

TEST_F(Provisioning, FailuresSurviveTheServicesClearingOfBitOne)
{
    for (const int failure : {kUnreadable, kMalformed, kDamaged, kStorageFailed}) {
        EXPECT_EQ(failure & ~2, failure);
    }
}

}  // namespace
