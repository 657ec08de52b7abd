// Items at rest: sealed by the real systemd-creds, and what happens when it is not what it should
// be.

#include <gtest/gtest.h>

#include <filesystem>

#include "base/secret-bytes.h"
#include "item-directory.h"
#include "platform/storage/item-store.h"
#include "platform/storage/provisioning-content.h"
#include "sealing-program.h"
#include "support/files.h"
#include "support/texts.h"

namespace fs = std::filesystem;

namespace quillon::test {
namespace {

const std::string kKey("\0\x01\xff key with\nall sorts", 22);

class Sealing : public ItemDirectory
{
protected:
    void TearDown() override
    {
        removeSealingProgram();
        ItemDirectory::TearDown();
    }

    static StoreResult store(const std::string& name, const std::string& text)
    {
        return storeItem(name, SecretBytes(text.begin(), text.end()));
    }

    /// @return the item; what() failed in its place
    std::string read(const std::string& name)
    {
        SecretBytes bytes;
        captured.clear();
        const StoreResult result = readItem(name, bytes);
        return result == kStoreOk ? std::string(bytes.begin(), bytes.end())
                                  : "result " + std::to_string(result);
    }

    /// One line with the reason and the result for a sealed item that cannot be read.
    void expectNotUnsealed(const std::string& name, const std::string& reason)
    {
        EXPECT_EQ(read(name), "result 7");
        expectTexts(captured.lines(),
                    {like("*" + name + ".cred cannot be unsealed: *" + reason + "*")});
    }
};

class RealSealing : public Sealing
{
protected:
    void SetUp() override
    {
        Sealing::SetUp();
        if (!putRealSealing()) {
            GTEST_SKIP() << "systemd-creds is not installed";
        }
    }
};

TEST_F(RealSealing, KeepsAnItemThatNobodyReadsOffTheDisk)
{
    ASSERT_EQ(store("quillon", kKey), kStoreOk);
    expectTexts(namesInDirectory(), {"quillon.cred"});
    EXPECT_EQ(fs::status(pathOf("quillon.cred")).permissions(), fs::perms(0600));
    expectNoText(readAll(pathOf("quillon.cred")), like("*all sorts*"));
    EXPECT_EQ(read("quillon"), kKey);
}

TEST_F(RealSealing, KeepsTheSmallestAndTheLargestItem)
{
    for (const std::size_t size : {std::size_t(1), kLargestItem}) {
        ASSERT_EQ(store("quillon", std::string(size, 'k')), kStoreOk);
        EXPECT_EQ(read("quillon"), std::string(size, 'k'));
    }
}

TEST_F(RealSealing, BindsAnItemToItsName)
{
    ASSERT_EQ(store("other", kKey), kStoreOk);
    fs::rename(pathOf("other.cred"), pathOf("quillon.cred"));
    expectNotUnsealed("quillon", "does not match");
}

TEST_F(RealSealing, NoticesDamage)
{
    ASSERT_EQ(store("quillon", kKey), kStoreOk);
    const std::string sealed = readAll(pathOf("quillon.cred"));
    for (const std::size_t at : {std::size_t(0), sealed.size() / 2, sealed.size() - 8}) {
        std::string damaged = sealed;
        damaged[at] = damaged[at] == 'A' ? 'B' : 'A';
        writeFile(pathOf("quillon.cred"), damaged);
        expectNotUnsealed("quillon", "failed with status 1");
    }
    writeFile(pathOf("quillon.cred"), sealed.substr(0, sealed.size() / 2));
    expectNotUnsealed("quillon", "failed with status 1");
    writeFile(pathOf("quillon.cred"), "not sealed");
    expectNotUnsealed("quillon", "failed with status 1");
}

TEST_F(RealSealing, IsOfNoUseToAnotherMachine)
{
    ASSERT_EQ(store("quillon", kKey), kStoreOk);
    fs::remove("/var/lib/quillon/credential.secret");
    expectNotUnsealed("quillon", "failed with status 1");
}

TEST_F(RealSealing, ReplacesAnUnsealedItem)
{
    makeDirectory();
    writeFile(pathOf("quillon"), "old key");
    EXPECT_EQ(read("quillon"), "old key");
    ASSERT_EQ(store("quillon", kKey), kStoreOk);
    expectTexts(namesInDirectory(), {"quillon.cred"});
    EXPECT_EQ(read("quillon"), kKey);
}

TEST_F(RealSealing, PrefersTheSealedItem)
{
    ASSERT_EQ(store("quillon", kKey), kStoreOk);
    writeFile(pathOf("quillon"), "planted");
    EXPECT_EQ(read("quillon"), kKey);
    writeFile(pathOf("quillon.cred"), "damaged");
    expectNotUnsealed("quillon", "failed with status 1");
}

TEST_F(Sealing, LooksAtASealedFileAsAtAnyOther)
{
    makeDirectory();
    putSealingScript("echo must not run >&2");
    writeFile(pathOf("quillon.cred"), "sealed", 0640);
    EXPECT_EQ(read("quillon"), "result 4");
    fs::remove(pathOf("quillon.cred"));
    fs::create_symlink(pathOf("other"), pathOf("quillon.cred"));
    EXPECT_EQ(read("quillon"), "result 3");
    fs::remove(pathOf("quillon.cred"));
    writeFile(pathOf("quillon.cred"), "");
    EXPECT_EQ(read("quillon"), "result 6");
    fs::resize_file(pathOf("quillon.cred"), std::uintmax_t(3) << 30U);
    EXPECT_EQ(read("quillon"), "result 6");
}

TEST_F(Sealing, AsksForTheBestKeyThatThereIs)
{
    putSealingScript("cat > /run/quillon/input; echo \"$0 $@\"; env | grep -v '^PWD='; true");
    ASSERT_EQ(store("quillon", kKey), kStoreOk);
    EXPECT_EQ(readAll(pathOf("quillon.cred")),
              "/run/quillon/systemd-creds encrypt --with-key=auto --name=quillon - -\n");
    EXPECT_EQ(readAll("/run/quillon/input"), kKey);
    EXPECT_EQ(read("quillon"), "/run/quillon/systemd-creds decrypt --name=quillon - -\n");
    fs::remove("/run/quillon/input");
}

TEST_F(Sealing, WithoutItsProgramKeepsItemsUnsealedAndSaysSoOnce)
{
    ASSERT_EQ(store("quillon", kKey), kStoreOk);
    ASSERT_EQ(store("other", kKey), kStoreOk);
    expectTexts(captured.lines(), {like("*no /run/quillon/systemd-creds: items are "
                                        "stored unsealed*")});
    expectTextsInAnyOrder(namesInDirectory(), {"quillon", "other"});
    EXPECT_EQ(read("quillon"), kKey);
}

TEST_F(Sealing, WithoutItsProgramNeitherReadsNorHidesASealedItem)
{
    makeDirectory();
    writeFile(pathOf("quillon.cred"), "sealed");
    writeFile(pathOf("quillon"), kKey);
    expectNotUnsealed("quillon", "cannot be started: No such file");
    EXPECT_EQ(store("quillon", kKey), kStoreFailed);
    expectText(captured.text(), like("*quillon.cred is sealed and would hide*"));
    EXPECT_EQ(readAll(pathOf("quillon.cred")), "sealed");
}

TEST_F(Sealing, NeverFallsBackToAnUnsealedItemWhenItFails)
{
    putSealingScript("cat > /dev/null; echo no key >&2; echo none >&2; exit 1");
    captured.clear();
    EXPECT_EQ(store("quillon", kKey), kStoreFailed);
    expectTexts(captured.lines(), {like("*quillon cannot be sealed: /run/quillon/systemd-creds "
                                        "failed with status 1: no key;none*")});
    expectTexts(namesInDirectory(), {});
}

TEST_F(Sealing, DoesNotWaitForEver)
{
    putSealingScript("sleep 60");
    captured.clear();
    EXPECT_EQ(store("quillon", kKey), kStoreFailed);
    expectTexts(captured.lines(), {like("*is not done after 3000 ms*")});
    makeDirectory();
    writeFile(pathOf("quillon.cred"), "sealed");
    expectNotUnsealed("quillon", "is not done after 3000 ms");
}

TEST_F(Sealing, TakesNoItemThatIsEmptyOrTooLarge)
{
    makeDirectory();
    writeFile(pathOf("quillon.cred"), "sealed");
    putSealingScript("cat > /dev/null");
    EXPECT_EQ(read("quillon"), "result 6");
    putSealingScript("head -c 65537 /dev/zero");
    expectNotUnsealed("quillon", "writes more than 65536 bytes");
}

TEST_F(Sealing, HasNoItemsNamedLikeSealedFiles)
{
    EXPECT_EQ(read("quillon.cred"), "result 1");
    EXPECT_EQ(store("quillon.cred", kKey), kStoreBadArgument);
}

}  // namespace
}  // namespace quillon::test
