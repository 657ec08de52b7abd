// What lies on the stick in the place of an image, and what becomes of it during verification.

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "base/fd.h"
#include "usb-images.h"

namespace quillon::test {
namespace {

using namespace fakes;

constexpr char kImage[] = "/opt/media/USBDriveA/alpha.bin";

// Whoever waits for a FIFO that nobody writes to would wait forever.
constexpr unsigned int kPatienceSeconds = 50;

class ImageFile : public UsbImages
{
protected:
    ImageFile()
    {
        install(Module().needsUpdate());
        alarm(kPatienceSeconds);
    }

    void expectOpenFailures()
    {
        EXPECT_EQ(estimate(), -1);
        EXPECT_EQ(update(), -1);
        expectSteps(
            {LogFrom("getNeedUpdateList", ERROR, "Error: /opt/media/USBDriveA/alpha.bin open fail"),
             LogFrom("updateUSB", ERROR, "Error: /opt/media/USBDriveA/alpha.bin file open")});
    }

    // What the verifier's answer hides from the caller is done while it reads.
    void whileVerifying(const std::function<void()>& meddle)
    {
        platform().verifyFile.always([meddle](const char*) {
            meddle();
            return 1;
        });
    }

    void expectBothToRefuse()
    {
        stick.addImage("alpha", image);
        EXPECT_EQ(estimate(), -1);
        expectSteps({verified, saidSigned,
                     LogFrom("getNeedUpdateList", ERROR,
                             "Error: /opt/media/USBDriveA/alpha.bin is NOT signed ")});
        clear();
        stick.addImage("alpha", image);
        EXPECT_EQ(update(), -1);
        expectSteps({verified, saidSigned,
                     LogFrom("updateUSB", ERROR,
                             "Error: /opt/media/USBDriveA/alpha.bin file is NOT signed ")});
    }

    const Bytes image = Image().payload(bytesOf("as verified")).bytes();
    const Bytes evil = Image().payload(bytesOf("exchanged!!")).bytes();
};

TEST_F(ImageFile, AFifoIsNoImageAndNeverBlocks)
{
    ASSERT_EQ(mkfifo(kImage, 0666), 0);

    expectOpenFailures();
}

TEST_F(ImageFile, AFifoWithAWriterIsNoImageEither)
{
    ASSERT_EQ(mkfifo(kImage, 0666), 0);
    const UniqueFd writer(open(kImage, O_RDWR | O_CLOEXEC));
    ASSERT_EQ(write(writer.get(), image.data(), image.size()), static_cast<ssize_t>(image.size()));

    expectOpenFailures();
}

TEST_F(ImageFile, ADirectoryIsNoImage)
{
    makeDirectory(kImage);

    expectOpenFailures();
}

TEST_F(ImageFile, ADeviceIsNoImage)
{
    ASSERT_EQ(symlink("/dev/zero", kImage), 0);

    expectOpenFailures();
}

TEST_F(ImageFile, ASocketIsNoImage)
{
    const UniqueFd listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, kImage);
    ASSERT_EQ(bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)),
              0);

    expectOpenFailures();
}

TEST_F(ImageFile, ALinkThatLeadsNowhereIsNoImage)
{
    ASSERT_EQ(symlink("gone.bin", kImage), 0);

    expectOpenFailures();
}

TEST_F(ImageFile, ALinkToARegularFileIsAnImage)
{
    stick.addImage("alpha-2.0", image);
    ASSERT_EQ(symlink("alpha-2.0.bin", kImage), 0);

    EXPECT_EQ(estimate(), 1);
    EXPECT_EQ(update(), 0);

    EXPECT_EQ(payloadsOf("alpha"), std::vector<Bytes>{bytesOf("as verified")});
}

TEST_F(ImageFile, ALinkToAFifoIsNoImage)
{
    ASSERT_EQ(mkfifo("/opt/media/fifo", 0666), 0);
    ASSERT_EQ(symlink("/opt/media/fifo", kImage), 0);

    expectOpenFailures();
}

TEST_F(ImageFile, ExchangedForAnotherDuringVerificationCountsAsNotSigned)
{
    whileVerifying([this] {
        stick.addImage("evil", evil);
        ASSERT_EQ(std::rename(stick.imagePath("evil").c_str(), kImage), 0);
    });

    expectBothToRefuse();

    EXPECT_TRUE(payloadsOf("alpha").empty());
}

TEST_F(ImageFile, RewrittenInPlaceDuringVerificationCountsAsNotSigned)
{
    whileVerifying([this] {
        usleep(50000);  // file times may be as coarse as that
        stick.addImage("alpha", evil);
    });

    expectBothToRefuse();
}

TEST_F(ImageFile, RewrittenUnderTheSameModificationTimeCountsAsNotSigned)
{
    whileVerifying([this] {
        struct stat before
        {
        };
        ASSERT_EQ(stat(kImage, &before), 0);
        usleep(50000);
        stick.addImage("alpha", evil);
        const timespec times[] = {before.st_atim, before.st_mtim};
        ASSERT_EQ(utimensat(AT_FDCWD, kImage, times, 0), 0);
    });

    expectBothToRefuse();
}

TEST_F(ImageFile, WhoseRightsChangeDuringVerificationCountsAsNotSigned)
{
    whileVerifying([] {
        usleep(50000);  // file times may be as coarse as that
        ASSERT_EQ(chmod(kImage, 0600), 0);
    });

    expectBothToRefuse();
}

TEST_F(ImageFile, GrownDuringVerificationCountsAsNotSigned)
{
    whileVerifying([this] { stick.addImage("alpha", image + noise(16)); });

    expectBothToRefuse();
}

TEST_F(ImageFile, RemovedDuringVerificationCountsAsNotSigned)
{
    whileVerifying([] { ASSERT_EQ(unlink(kImage), 0); });

    expectBothToRefuse();
}

TEST_F(ImageFile, ReplacedByALinkToACopyDuringVerificationCountsAsNotSigned)
{
    whileVerifying([this] {
        stick.addImage("copy", image);
        ASSERT_EQ(unlink(kImage), 0);
        ASSERT_EQ(symlink("copy.bin", kImage), 0);
    });

    expectBothToRefuse();
}

TEST_F(ImageFile, OfMoreThanTwoGigabytesCannotBeDeciphered)
{
    stick.addImage("alpha", image);
    ASSERT_EQ(truncate(kImage, off_t{3} << 30), 0);
    recordCalls({"EVP_CipherInit", "EVP_CipherUpdate"});

    EXPECT_EQ(estimate(), -1);
    EXPECT_EQ(update(), -1);

    expectSteps({verified, saidSigned, contextSet,
                 LogFrom("getNeedUpdateList", ERROR, "Error: Decryption data is null"), verified,
                 saidSigned, contextSet,
                 LogFrom("updateUSB", ERROR, "Error: Decryption data is null")});
}

TEST_F(ImageFile, EveryTruncationLeavesTheModuleServing)
{
    const Bytes whole = Image().payload(bytesOf("small")).bytes();
    for (std::size_t size = 0; size < whole.size(); ++size) {
        stick.addImage("alpha", Image().payload(bytesOf("small")).cutTo(size));

        const int need = estimate();
        EXPECT_EQ(need, size < kIvSize ? -1 : 1) << size;
        static_cast<void>(update());
    }
    for (const Bytes& payload : payloadsOf("alpha")) {
        EXPECT_NE(payload, bytesOf("small")) << "only the whole image holds the payload";
    }
}

}  // namespace
}  // namespace quillon::test
