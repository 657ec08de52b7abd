#include "platform/secure-storage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "item-directory.h"
#include "support/texts.h"

namespace fs = std::filesystem;

namespace {

using quillon::test::expectTexts;
using quillon::test::like;

struct Wiped
{
    const unsigned char* begin;
    const unsigned char* end;
};

/// Each thread's own: the worker of a download comes this way as well.
std::vector<Wiped>& wiped()
{
    thread_local std::vector<Wiped> ranges;
    return ranges;
}

}  // namespace

// Stand in front of the C library's, to see what is wiped before it is given back.
extern "C" void explicit_bzero(void* memory, size_t size) noexcept
{
    const auto* begin = static_cast<const unsigned char*>(memory);
    wiped().push_back({begin, begin + size});
    auto* bytes = static_cast<volatile unsigned char*>(memory);
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = 0;
    }
}

extern "C" void __explicit_bzero_chk(void* memory, size_t size, size_t /*room*/) noexcept
{
    explicit_bzero(memory, size);
}

namespace {

constexpr int kBadArgument = 1;
constexpr int kNotAFile = 3;
constexpr int kExposed = 4;
constexpr int kMissing = 5;
constexpr int kBadSize = 6;
constexpr std::size_t kLargest = 65536;

class SecureStorage : public ItemDirectory
{
protected:
    void SetUp() override
    {
        ItemDirectory::SetUp();
        if (!HasFatalFailure()) {
            makeDirectory();
        }
        ss_init_credential(&credential, 1, 2, 3, 4, 5, 1, 0);
    }

    int read(const char* item) { return ss_read(&data, &size, 0, 0, item, &credential, 33); }

    // A refusal tells its reason in one line and hands nothing out.
    void expectRefused(const char* item, int result, const char* reason)
    {
        unsigned char untouched = 0;
        data = &untouched;
        size = 77;
        captured.clear();
        EXPECT_EQ(read(item), result);
        EXPECT_EQ(data, &untouched);
        EXPECT_EQ(size, 77U);
        expectTexts(captured.lines(), {like(std::string("QUILLON-PLATFORM E *") + reason + "*")});
        data = nullptr;
    }

    ss_credential credential = {};
    unsigned char* data = nullptr;
    size_t size = 0;
};

TEST_F(SecureStorage, GivesAnItemsBytes)
{
    const std::string key("\0\x01\xff key with\nall sorts", 22);
    writeFile(pathOf("quillon"), key);
    ASSERT_EQ(read("quillon"), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(data), size), key);
    ss_free_buffer(data);
    EXPECT_EQ(captured.text(), "");
}

TEST_F(SecureStorage, GivesTheSmallestAndTheLargestItem)
{
    for (const std::size_t length : {std::size_t(1), kLargest}) {
        writeFile(pathOf("quillon"), std::string(length, 'k'));
        ASSERT_EQ(read("quillon"), 0);
        EXPECT_EQ(size, length);
        ss_free_buffer(data);
    }
}

TEST_F(SecureStorage, AnswersFiveForAMissingItemAndSaysNothing)
{
    EXPECT_EQ(read("quillon"), kMissing);
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(captured.text(), "");
}

TEST_F(SecureStorage, AnswersFiveWhereTheDirectoryIsMissing)
{
    fs::remove(kDirectory);
    EXPECT_EQ(read("quillon"), kMissing);
}

TEST_F(SecureStorage, RefusesEmptyAndTooLargeItems)
{
    writeFile(pathOf("quillon"), "");
    expectRefused("quillon", kBadSize, "1 to 65536 bytes");
    writeFile(pathOf("quillon"), std::string(kLargest + 1, 'k'));
    expectRefused("quillon", kBadSize, "1 to 65536 bytes");
    fs::resize_file(pathOf("quillon"), std::uintmax_t(3) << 30U);
    expectRefused("quillon", kBadSize, "1 to 65536 bytes");
}

TEST_F(SecureStorage, RefusesAnItemThatOthersCanGetAt)
{
    for (const mode_t mode : {0640U, 0604U, 0620U, 0602U, 0610U, 0601U, 0666U}) {
        writeFile(pathOf("quillon"), "key", mode);
        expectRefused("quillon", kExposed, "open to group or others");
    }
}

TEST_F(SecureStorage, FollowsNoLink)
{
    writeFile(pathOf("other"), "key");
    fs::create_symlink(pathOf("other"), pathOf("quillon"));
    expectRefused("quillon", kNotAFile, "not a regular file");
}

TEST_F(SecureStorage, RefusesADirectoryAndDoesNotWaitForAFifo)
{
    fs::create_directory(pathOf("directory"));
    expectRefused("directory", kNotAFile, "not a regular file");
    ASSERT_EQ(mkfifo(pathOf("fifo").c_str(), 0600), 0);
    expectRefused("fifo", kNotAFile, "not a regular file");
}

TEST_F(SecureStorage, RefusesNamesThatLeadElsewhere)
{
    writeFile("/var/lib/quillon/outside", "key");
    const std::string tooLong(65, 'x');
    for (const char* name : {"", ".", "..", ".hidden", "../outside", "/etc/passwd", "a/b", "a b",
                             "a\n", "\xc3\xbc", tooLong.c_str()}) {
        expectRefused(name, kBadArgument, "cannot be the name of an item");
    }
    fs::remove("/var/lib/quillon/outside");
}

TEST_F(SecureStorage, TakesEveryNameThatIsAllowed)
{
    for (const std::string& name :
         {std::string("a"), std::string("Key_1.v-2"), std::string(64, 'x')}) {
        writeFile(pathOf(name), "key");
        EXPECT_EQ(read(name.c_str()), 0) << name;
        ss_free_buffer(std::exchange(data, nullptr));
    }
}

TEST_F(SecureStorage, RefusesMissingArguments)
{
    writeFile(pathOf("quillon"), "key");
    EXPECT_EQ(ss_read(nullptr, &size, 0, 0, "quillon", &credential, 33), kBadArgument);
    EXPECT_EQ(ss_read(&data, nullptr, 0, 0, "quillon", &credential, 33), kBadArgument);
    EXPECT_EQ(ss_read(&data, &size, 0, 0, nullptr, &credential, 33), kBadArgument);
    EXPECT_EQ(ss_read(&data, &size, 0, 0, "quillon", nullptr, 33), kBadArgument);
    EXPECT_EQ(data, nullptr);
}

TEST_F(SecureStorage, WipesABufferThatIsGivenBack)
{
    writeFile(pathOf("quillon"), std::string(1000, 'k'));
    ASSERT_EQ(read("quillon"), 0);
    const unsigned char* const begin = data;
    const unsigned char* const end = data + size;
    wiped().clear();
    ss_free_buffer(data);
    ASSERT_EQ(wiped().size(), 1U);
    EXPECT_LE(wiped()[0].begin, begin);
    EXPECT_EQ(wiped()[0].end, end);
}

TEST_F(SecureStorage, WipesItsOwnCopyBeforeTheReadEnds)
{
    writeFile(pathOf("quillon"), std::string(1000, 'k'));
    wiped().clear();
    ASSERT_EQ(read("quillon"), 0);
    std::size_t bytes = 0;
    for (const Wiped& range : wiped()) {
        bytes += static_cast<std::size_t>(range.end - range.begin);
    }
    EXPECT_GE(bytes, 1000U);
    ss_free_buffer(data);
}

TEST(SecureStorageBuffer, MayBeNull)
{
    ss_free_buffer(nullptr);
}

TEST(Credential, IsFilledWhole)
{
    ss_credential credential;
    std::memset(&credential, 0xff, sizeof credential);
    EXPECT_EQ(ss_init_credential(&credential, 1, 2, 3, 4, 0xffffffff, 6, -7), 0);
    EXPECT_THAT(credential.words, testing::ElementsAre(1U, 2U, 3U, 4U, 0xffffffffU));
    EXPECT_THAT(credential.flags, testing::ElementsAre(6, -7));
    EXPECT_THAT(credential.reserved, testing::Each(0));
}

TEST(Credential, NeedsAPlace)
{
    EXPECT_NE(ss_init_credential(nullptr, 0, 0, 0, 0, 0, 1, 0), 0);
}

}  // namespace
