// The format needs nothing of ours: the commands of docs/image-format.md, taken from that page,
// make images that we read, and read ours.

#include <gmock/gmock.h>
#include <vector>

#include "unit/tools/image-files.h"

using ::testing::SizeIs;

namespace quillon::test {
namespace {

/// @return the shell commands on a page, one text for each block.
std::vector<std::string> shellBlocksOf(const std::string& page)
{
    const std::string opening = "```sh\n";
    std::vector<std::string> blocks;
    for (std::size_t at = page.find(opening); at != std::string::npos;
         at = page.find(opening, at)) {
        at += opening.size();
        blocks.push_back(page.substr(at, page.find("```", at) - at));
    }
    return blocks;
}

class ImageOpenssl : public ImageFiles
{
protected:
    void SetUp() override
    {
        ImageFiles::SetUp();
        if (shell("openssl version") != 0) {
            GTEST_SKIP() << "openssl(1) is not installed";
        }
        const std::vector<std::string> blocks = shellBlocksOf(readAll(FORMAT_PAGE));
        ASSERT_THAT(blocks, SizeIs(4));
        const std::string start = "set -e; cd '" + directory + "'\n" + blocks[0];
        makeCommands = start + blocks[1];
        readCommands = start + blocks[2];
        checkFormat2Commands = start + blocks[3];

        std::filesystem::create_symlink(QUILLON_TEST_KEYS "/a", directory + "keys");
        writeFile(directory + "payload", "firmware of the tuner\n");
    }

    std::string makeCommands;
    std::string readCommands;
    std::string checkFormat2Commands;
};

TEST_F(ImageOpenssl, MakesAnImageThatVerifiesAndExtracts)
{
    ASSERT_EQ(shell(makeCommands), 0) << err;

    EXPECT_NO_THROW(
        verifyStickImage(directory + "tuner.bin", {keyPath("a", kPublicKeyFile), "", {}}));
    EXPECT_EQ(extractStickImage(directory + "tuner.bin", loadImageKey(keyPath("a", kImageKeyFile)),
                                directory + "extracted"),
              "2.0");
    EXPECT_EQ(readAll(directory + "extracted"), readAll(directory + "payload"));
}

TEST_F(ImageOpenssl, VerifiesAndDeciphersAnImageOfOurs)
{
    makeImage(directory + "tuner.bin", "a", "2.0", "firmware of the tuner\n");

    ASSERT_EQ(shell(readCommands), 0) << err;
    EXPECT_EQ(out, "Verified OK\n");
    EXPECT_EQ(readAll(directory + "version"), "2.0");
    EXPECT_EQ(readAll(directory + "extracted"), readAll(directory + "payload"));
}

TEST_F(ImageOpenssl, ChecksASignatureForOneModuleOfOneModel)
{
    makeImage(directory + "tuner.bin", "a", "2.0", "firmware", ImagePurpose{"tuner", "TV2024", 7});

    EXPECT_EQ(shell(checkFormat2Commands), 0) << err;
    EXPECT_EQ(out, "Verified OK\n");

    makeImage(directory + "tuner.bin", "a", "2.0", "firmware", ImagePurpose{"tuner", "TV2025", 7});
    EXPECT_NE(shell(checkFormat2Commands), 0);
}

}  // namespace
}  // namespace quillon::test
