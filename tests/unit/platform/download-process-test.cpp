#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>

#include "download-fixture.h"
#include "other-process.h"
#include "platform/app-binary-manager.h"
#include "support/files.h"
#include "support/texts.h"
#include "support/wait.h"

namespace {

using quillon::test::expectTexts;
using quillon::test::expectTextsInAnyOrder;
using quillon::test::readAll;
using quillon::test::waitFor;

namespace fs = std::filesystem;
using appbinaryManager::ABM_DownloadAppBinary;
using std::chrono::steady_clock;

int requestAndWaitForWord(OtherProcess& self)
{
    const bool accepted = ABM_DownloadAppBinary(nullptr, nullptr, "alpha");
    self.waitForWord();
    return accepted ? 0 : 1;
}

/// The suite's name has it run before the suites that have threads, if all run in one process.
class DownloadDeathTest : public DownloadFixture
{
protected:
    static constexpr std::size_t kHalf = 100000;
    const std::string package = packageOf(2 * kHalf);

    void sendHalfAndStall(HttpConnection& connection)
    {
        sendBeginning(connection, package, kHalf);
        connection.stall();
    }

    /// Downloads the package; the exit status is the number of the download's status without sign.
    static int downloadPackage(OtherProcess& /*self*/) { return -download("alpha"); }

    static void waitForPart(std::uintmax_t size)
    {
        ASSERT_TRUE(waitFor("the part of the package", [size] {
            std::error_code ignored;
            return fs::exists(pathOf(partOf("alpha"))) &&
                   fs::file_size(pathOf(partOf("alpha")), ignored) == size;
        }));
    }
};

TEST_F(DownloadDeathTest, EndsInOrderInTheMiddleOfADownload)
{
    OtherProcess other(&requestAndWaitForWord);
    const LocalHttpServer server(
        [&](const HttpRequest&, HttpConnection& connection) { sendHalfAndStall(connection); });
    configure("address = " + server.address() + "\n");
    other.goOn();
    waitForPart(kHalf);

    const auto start = steady_clock::now();
    other.goOn();
    EXPECT_EQ(other.waitForEnd(), 0);

    EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(5));
    expectTextsInAnyOrder(namesInDirectory(), {partOf("alpha"), noteOf("alpha")});
}

TEST_F(DownloadDeathTest, EndsInOrderInAPauseBetweenTwoAttempts)
{
    OtherProcess other(&requestAndWaitForWord);
    const LocalHttpServer server([&](const HttpRequest&, HttpConnection& connection) {
        sendBeginning(connection, package, kHalf);
    });
    configure("address = " + server.address() + "\nretry-pause = 60\n");
    other.goOn();
    waitForPart(kHalf);

    const auto start = steady_clock::now();
    other.goOn();
    EXPECT_EQ(other.waitForEnd(), 0);

    EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(5));
}

TEST_F(DownloadDeathTest, EndsInOrderWithPackagesWaiting)
{
    OtherProcess other([](OtherProcess& self) {
        const int result = requestAndWaitForWord(self);
        const bool accepted = ABM_DownloadAppBinary(nullptr, nullptr, "beta") &&
                              ABM_DownloadAppBinary(nullptr, nullptr, "gamma");
        return accepted ? result : 1;
    });
    const LocalHttpServer server(
        [&](const HttpRequest&, HttpConnection& connection) { sendHalfAndStall(connection); });
    configure("address = " + server.address() + "\n");
    other.goOn();
    waitForPart(kHalf);
    other.goOn();
    EXPECT_EQ(other.waitForEnd(), 0);
    EXPECT_EQ(server.requests().size(), 1U);
}

TEST_F(DownloadDeathTest, LetsAChildEndInAPauseBetweenTwoAttempts)
{
    OtherProcess other([](OtherProcess& self) {
        const int result = requestAndWaitForWord(self);
        return forkedChildEnds() ? result : 1;
    });
    const LocalHttpServer server([&](const HttpRequest&, HttpConnection& connection) {
        sendBeginning(connection, package, kHalf);
    });
    configure("address = " + server.address() + "\nretry-pause = 60\n");
    other.goOn();
    waitForPart(kHalf);
    other.goOn();
    EXPECT_EQ(other.waitForEnd(), 0);
}

TEST_F(DownloadDeathTest, LetsAChildEndAfterADownload)
{
    OtherProcess other([](OtherProcess& self) {
        const int result = downloadPackage(self);
        return forkedChildEnds() ? result : 1;
    });
    const LocalHttpServer server([&](const HttpRequest& request, HttpConnection& connection) {
        sendPackage(request, connection, package);
    });
    configure("address = " + server.address() + "\n");
    other.goOn();
    EXPECT_EQ(other.waitForEnd(), 0);
}

TEST_F(DownloadDeathTest, LeavesAPartToTheNextProcessWhenItIsKilled)
{
    OtherProcess other(&requestAndWaitForWord);
    OtherProcess next(&downloadPackage);
    const LocalHttpServer server([&](const HttpRequest& request, HttpConnection& connection) {
        if (request.offset() == 0) {
            sendHalfAndStall(connection);
            return;
        }
        sendPackage(request, connection, package);
    });
    configure("address = " + server.address() + "\n");
    other.goOn();
    waitForPart(kHalf);
    other.killNow();

    next.goOn();
    EXPECT_EQ(next.waitForEnd(), 0);

    EXPECT_EQ(server.requests().back().header("Range"), "bytes=100000-");
    EXPECT_TRUE(readAll(pathOf("alpha.img")) == package);
    expectTexts(namesInDirectory(), {"alpha.img"});
}

TEST_F(DownloadDeathTest, DoesNotFetchWhatAnotherProcessIsFetching)
{
    OtherProcess other(&requestAndWaitForWord);
    OtherProcess next(&downloadPackage);
    const LocalHttpServer server(
        [&](const HttpRequest&, HttpConnection& connection) { sendHalfAndStall(connection); });
    configure("address = " + server.address() + "\n");
    other.goOn();
    waitForPart(kHalf);

    next.goOn();
    EXPECT_EQ(next.waitForEnd(), 6);

    EXPECT_EQ(server.requests().size(), 1U);
    other.killNow();
}

// A privileged user's right to write everywhere is a right of each thread, which the thread hands
// on to those that it starts.
bool dropRightToWriteEverywhere()
{
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    const __user_cap_data_struct none[2] = {};
    return syscall(SYS_capset, &header, none) == 0;
}

TEST_F(DownloadDeathTest, FailsInADirectoryThatItMayNotWrite)
{
    OtherProcess other([](OtherProcess& self) {
        return dropRightToWriteEverywhere() ? downloadPackage(self) : 1;
    });
    const LocalHttpServer server([&](const HttpRequest& request, HttpConnection& connection) {
        sendPackage(request, connection, package);
    });
    configure("address = " + server.address() + "\n");
    fs::create_directories(kDirectory);
    fs::permissions(kDirectory, fs::perms(0555));

    other.goOn();
    EXPECT_EQ(other.waitForEnd(), 5);

    fs::permissions(kDirectory, fs::perms(0755));
    EXPECT_TRUE(server.requests().empty());
}

}  // namespace
