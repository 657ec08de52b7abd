#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "base/fd.h"
#include "download-fixture.h"
#include "support/files.h"
#include "support/texts.h"

namespace {

using quillon::test::expectTexts;
using quillon::test::expectTextsInAnyOrder;
using quillon::test::like;
using quillon::test::readAll;
using quillon::test::writeFile;

namespace fs = std::filesystem;

class DownloadStorage : public DownloadFixture
{
protected:
    void SetUp() override
    {
        DownloadFixture::SetUp();
        configureFor(server.address());
    }

    static mode_t modeOf(const std::string& name)
    {
        struct stat status = {};
        EXPECT_EQ(stat(pathOf(name).c_str(), &status), 0);
        return status.st_mode & 07777U;
    }

    const std::string package = packageOf(200000);
    const LocalHttpServer server{[this](const HttpRequest& request, HttpConnection& connection) {
        sendPackage(request, connection, package);
    }};
    CapturedStderr captured;
};

TEST_F(DownloadStorage, LetsThoseReadAPackageWhomTheUmaskLets)
{
    const mode_t before = umask(022);
    EXPECT_EQ(download("alpha"), 0);
    EXPECT_EQ(modeOf("alpha.img"), 0644U);
    umask(027);
    EXPECT_EQ(download("beta"), 0);
    EXPECT_EQ(modeOf("beta.img"), 0640U);
    umask(before);
}

// Who may open it may lock it, and then nobody can go on with it.
TEST_F(DownloadStorage, LetsNobodyElseOpenAPart)
{
    const LocalHttpServer cutting([this](const HttpRequest&, HttpConnection& connection) {
        sendBeginning(connection, package, 1000);
    });
    configureFor(cutting.address(), "attempts = 1\n");
    const mode_t before = umask(022);
    EXPECT_EQ(download("alpha"), -2);
    EXPECT_EQ(modeOf(partOf("alpha")), 0600U);

    chmod(pathOf(partOf("alpha")).c_str(), 0644);
    EXPECT_EQ(download("alpha"), -2);
    EXPECT_EQ(modeOf(partOf("alpha")), 0600U);

    configureFor(server.address());
    EXPECT_EQ(download("alpha"), 0);
    EXPECT_EQ(modeOf("alpha.img"), 0644U);
    umask(before);
}

TEST_F(DownloadStorage, RemovesALinkInThePartsPlaceAndDoesNotFollowIt)
{
    writeFile(pathOf("victim"), "somebody's file");
    fs::create_symlink("victim", pathOf(partOf("alpha")));

    EXPECT_EQ(download("alpha"), 0);

    EXPECT_EQ(readAll(pathOf("victim")), "somebody's file");
    EXPECT_TRUE(readAll(pathOf("alpha.img")) == package);
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(pathOf("alpha.img"))));
    expectTextsInAnyOrder(namesInDirectory(), {"alpha.img", "victim"});
}

TEST_F(DownloadStorage, DoesNotWriteIntoAFileThatHasAnotherNameToo)
{
    writeFile(pathOf("victim"), "somebody's file");
    fs::create_hard_link(pathOf("victim"), pathOf(partOf("alpha")));

    EXPECT_EQ(download("alpha"), 0);

    EXPECT_EQ(readAll(pathOf("victim")), "somebody's file");
    EXPECT_TRUE(readAll(pathOf("alpha.img")) == package);
}

TEST_F(DownloadStorage, RemovesAFifoInThePartsPlaceAndDoesNotWaitForIt)
{
    ASSERT_EQ(mkfifo(pathOf(partOf("alpha")).c_str(), 0600), 0);

    EXPECT_EQ(download("alpha"), 0);

    EXPECT_TRUE(readAll(pathOf("alpha.img")) == package);
}

TEST_F(DownloadStorage, ReplacesALinkInThePackagesPlaceAndDoesNotFollowIt)
{
    writeFile(pathOf("victim"), "somebody's file");
    fs::create_symlink("victim", pathOf("alpha.img"));

    EXPECT_EQ(download("alpha"), 0);

    EXPECT_EQ(readAll(pathOf("victim")), "somebody's file");
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(pathOf("alpha.img"))));
    EXPECT_TRUE(readAll(pathOf("alpha.img")) == package);
}

TEST_F(DownloadStorage, DoesNotFollowALinkInTheNotesPlace)
{
    const std::string note =
        server.address() + "\n" + readAll("/proc/sys/kernel/random/boot_id") + "\"one\"\n";
    writeFile(pathOf("victim"), note);
    fs::create_symlink("victim", pathOf(noteOf("alpha")));
    writeFile(pathOf(partOf("alpha")), "old");

    EXPECT_EQ(download("alpha"), 0);

    EXPECT_EQ(server.requests().front().header("Range"), "");
    EXPECT_EQ(readAll(pathOf("victim")), note);
    EXPECT_TRUE(readAll(pathOf("alpha.img")) == package);
    expectTextsInAnyOrder(namesInDirectory(), {"alpha.img", "victim"});
}

TEST_F(DownloadStorage, FailsWhereADirectoryStandsInThePartsPlace)
{
    fs::create_directory(pathOf(partOf("alpha")));
    EXPECT_EQ(download("alpha"), -5);
    expectTexts(captured.lines(), {like("*package alpha cannot be stored: Is a directory: remove " +
                                        pathOf(partOf("alpha")) + " as root or as user*")});
    EXPECT_TRUE(server.requests().empty());
}

TEST_F(DownloadStorage, FailsWhereADirectoryStandsInTheNotesPlace)
{
    fs::create_directory(pathOf(noteOf("alpha")));
    EXPECT_EQ(download("alpha"), -5);
    expectTexts(captured.lines(),
                {like("*package alpha cannot be downloaded: Is a directory: remove " +
                      pathOf(noteOf("alpha")) + " as root or as user*")});
}

TEST_F(DownloadStorage, FailsWhereADirectoryStandsInThePackagesPlace)
{
    fs::create_directory(pathOf("alpha.img"));
    EXPECT_EQ(download("alpha"), -5);
    expectTexts(captured.lines(), {like("*package alpha cannot be stored: Is a directory: remove " +
                                        pathOf("alpha.img") + " as root or as user*")});
    expectTexts(namesInDirectory(), {"alpha.img"});
}

TEST_F(DownloadStorage, FailsWhenTheDiskTakesNoMore)
{
    // A file that may not grow fails as a full disk does.
    const rlimit limit = {100000, RLIM_INFINITY};
    const rlimit none = {RLIM_INFINITY, RLIM_INFINITY};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    EXPECT_EQ(download("alpha"), -5);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &none), 0);

    expectTexts(captured.lines(), {like("*package alpha cannot be downloaded: File too large*")});
    expectTexts(namesInDirectory(), {});
}

TEST_F(DownloadStorage, LeavesAPartAloneThatAnotherProcessIsWriting)
{
    writeFile(pathOf(partOf("alpha")), "from another process");
    ASSERT_EQ(chmod(pathOf(partOf("alpha")).c_str(), 0600), 0);
    const int fd = open(pathOf(partOf("alpha")).c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(flock(fd, LOCK_EX), 0);

    EXPECT_EQ(download("alpha"), -6);
    EXPECT_EQ(readAll(pathOf(partOf("alpha"))), "from another process");
    expectTexts(captured.lines(), {like("*another process is downloading it*")});
    EXPECT_TRUE(server.requests().empty());

    close(fd);
    EXPECT_EQ(download("alpha"), 0);
    EXPECT_TRUE(readAll(pathOf("alpha.img")) == package);
}

TEST_F(DownloadStorage, IsNotHeldUpByAPartThatOthersMayLock)
{
    writeFile(pathOf(partOf("alpha")), "of nobody knows whom");
    ASSERT_EQ(chmod(pathOf(partOf("alpha")).c_str(), 0644), 0);
    const quillon::UniqueFd locked(open(pathOf(partOf("alpha")).c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(flock(locked.get(), LOCK_SH), 0);

    EXPECT_EQ(download("alpha"), 0);
    EXPECT_TRUE(readAll(pathOf("alpha.img")) == package);
}

}  // namespace
