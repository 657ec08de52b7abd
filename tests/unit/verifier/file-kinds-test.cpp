// What is no regular file, is not there, or is huge: the verifier neither waits nor grows.

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <fstream>

#include "support/texts.h"
#include "unit/verifier/verifier-test.h"

namespace quillon::test {
namespace {

constexpr std::uintmax_t kThreeGiB = 3ULL << 30U;

class FileKinds : public VerifierTest
{
protected:
    void SetUp() override
    {
        VerifierTest::SetUp();
        alarm(60);  // a verifier that waits ends the test
    }
};

TEST_F(FileKinds, AMissingFileIsRefused)
{
    EXPECT_EQ(verify(stick + "nothing.bin"), 0);
    EXPECT_EQ(said, "libkUEPUser: " + stick +
                        "nothing.bin: cannot be read: No such file or directory (asked by "
                        "UserCaller)\n");
}

TEST_F(FileKinds, ADirectoryIsRefused)
{
    EXPECT_EQ(verify(stick), 0);
    expectText(said, like("*cannot be read: is a directory*"));
}

TEST_F(FileKinds, AFifoWithoutAWriterIsRefusedAtOnce)
{
    const std::string fifo = stick + "fifo.bin";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);

    EXPECT_EQ(verify(fifo), 0);
    expectText(said, like("*cannot be read: not a regular file*"));
}

TEST_F(FileKinds, AnEndlessDeviceIsRefused)
{
    EXPECT_EQ(verify("/dev/zero"), 0);
    expectText(said, like("*cannot be read: not a regular file*"));
}

TEST_F(FileKinds, ASymbolicLinkCountsAsWhatItNames)
{
    std::filesystem::create_symlink(image, stick + "link.bin");
    std::filesystem::create_symlink("/dev/zero", stick + "zero.bin");
    std::filesystem::create_symlink("loop.bin", stick + "loop.bin");

    EXPECT_EQ(verify(stick + "link.bin"), 1);
    EXPECT_EQ(verify(stick + "zero.bin"), 0);
    EXPECT_EQ(verify(stick + "loop.bin"), 0);
}

TEST_F(FileKinds, ANullPathOrCallerIsSurvived)
{
    EXPECT_EQ(entry(nullptr, nullptr, "UserCaller"), 0);
    EXPECT_EQ(entry(nullptr, image.c_str(), nullptr), 1);
}

TEST_F(FileKinds, AHugeFileWithoutATrailerIsRefusedWithoutBeingRead)
{
    writeFile(image, "");
    std::filesystem::resize_file(image, kThreeGiB);

    const std::clock_t before = std::clock();
    EXPECT_EQ(verify(image), 0);
    EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 4) << "processor time, whatever else runs";
    expectText(said, like("*not signed: longer than 2147483647 bytes, the most*"));
}

TEST_F(FileKinds, AHugeFileIsReadInConstantMemory)
{
    const std::string trailer = content.substr(content.size() - 534);
    writeFile(image, "");
    std::filesystem::resize_file(image, kThreeGiB / 16);
    std::ofstream(image, std::ios::binary | std::ios::app) << trailer;

    struct rusage before = {};
    struct rusage after = {};
    ASSERT_EQ(getrusage(RUSAGE_SELF, &before), 0);
    EXPECT_EQ(verify(image), 0);
    ASSERT_EQ(getrusage(RUSAGE_SELF, &after), 0);
    expectText(said, like("*signature does not match the content*"));
    EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 16 * 1024) << "KiB";
}

}  // namespace
}  // namespace quillon::test
