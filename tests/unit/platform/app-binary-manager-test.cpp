#include "platform/app-binary-manager.h"

#include <gmock/gmock.h>
#include <link.h>

#include <cstring>
#include <stdexcept>

#include "download-fixture.h"
#include "support/files.h"
#include "support/texts.h"

namespace {

using quillon::test::expectTextAmong;
using quillon::test::expectTexts;
using quillon::test::expectTextsInAnyOrder;
using quillon::test::like;
using quillon::test::readAll;
using quillon::test::writeFile;

using appbinaryManager::ABM_DownloadAppBinary;
using testing::ElementsAre;
using testing::Pair;

bool hasLoaded(const char* library)
{
    const auto isIt = [](dl_phdr_info* loaded, std::size_t /*size*/, void* name) {
        return std::strstr(loaded->dlpi_name, static_cast<const char*>(name)) != nullptr ? 1 : 0;
    };
    return dl_iterate_phdr(isIt, const_cast<char*>(library)) != 0;
}

class PackageDownload : public DownloadFixture
{
protected:
    CapturedStderr captured;
};

TEST_F(PackageDownload, PutsThePackageIntoTheDirectoryAndTellsSo)
{
    const std::string package = packageOf(300000);
    const LocalHttpServer server([&](const HttpRequest& request, HttpConnection& connection) {
        sendPackage(request, connection, package);
    });
    configureFor(server.address() + "packages/");

    EXPECT_EQ(download("alpha1"), 0);

    EXPECT_TRUE(readAll(pathOf("alpha1.img")) == package);
    expectTexts(namesInDirectory(), {"alpha1.img"});
    ASSERT_EQ(server.requests().size(), 1U);
    EXPECT_EQ(server.requests().front().path, "/packages/alpha1.img");
    EXPECT_EQ(server.requests().front().header("Range"), "");
    expectTexts(
        captured.lines(),
        {like("QUILLON-PLATFORM I package-download.cpp: *package alpha1 is there, 300000 bytes*")});
}

TEST_F(PackageDownload, LoadsItsLibrariesWhenTheFirstPackageIsAskedFor)
{
    EXPECT_FALSE(hasLoaded("libcurl"));
    EXPECT_EQ(download(""), 1);
    EXPECT_TRUE(hasLoaded("libcurl"));
}

TEST_F(PackageDownload, ReplacesAnOlderPackage)
{
    const LocalHttpServer server([&](const HttpRequest& request, HttpConnection& connection) {
        sendPackage(request, connection, "newer");
    });
    configureFor(server.address());
    writeFile(pathOf("alpha.img"), "the older one");

    EXPECT_EQ(download("alpha"), 0);

    EXPECT_EQ(readAll(pathOf("alpha.img")), "newer");
}

TEST_F(PackageDownload, LeavesAnOlderPackageAloneWhenItFails)
{
    const LocalHttpServer server([&](const HttpRequest&, HttpConnection& connection) {
        sendBeginning(connection, "newer package", 5);
    });
    configureFor(server.address(), "attempts = 2\n");
    writeFile(pathOf("alpha.img"), "the older one");

    EXPECT_EQ(download("alpha"), -2);

    EXPECT_EQ(readAll(pathOf("alpha.img")), "the older one");
}

TEST_F(PackageDownload, NeedsNoCallback)
{
    const LocalHttpServer server([&](const HttpRequest& request, HttpConnection& connection) {
        sendPackage(request, connection, "package");
    });
    configureFor(server.address());

    EXPECT_TRUE(ABM_DownloadAppBinary(nullptr, nullptr, "alpha"));
    EXPECT_EQ(download("beta"), 0);  // comes after the first one

    expectTextsInAnyOrder(namesInDirectory(), {"alpha.img", "beta.img"});
}

TEST_F(PackageDownload, FetchesPackagesOneAfterAnother)
{
    const LocalHttpServer server([&](const HttpRequest& request, HttpConnection& connection) {
        sendPackage(request, connection, "package " + request.path);
    });
    configureFor(server.address());

    ToldEnds told;
    for (const char* name : {"alpha", "beta", "gamma"}) {
        EXPECT_TRUE(ABM_DownloadAppBinary(&ToldEnds::callback, &told, name));
    }

    EXPECT_THAT(told.waitFor(3), ElementsAre(Pair("alpha", 0), Pair("beta", 0), Pair("gamma", 0)));
    EXPECT_EQ(readAll(pathOf("beta.img")), "package /beta.img");
}

TEST_F(PackageDownload, OneThatFailsDoesNotStopTheNext)
{
    const LocalHttpServer server([&](const HttpRequest& request, HttpConnection& connection) {
        if (request.path == "/alpha.img") {
            connection.send(httpHead("404 Not Found", {"Content-Length: 0"}));
            return;
        }
        sendPackage(request, connection, "package");
    });
    configureFor(server.address());

    ToldEnds told;
    EXPECT_TRUE(ABM_DownloadAppBinary(&ToldEnds::callback, &told, "alpha"));
    EXPECT_TRUE(ABM_DownloadAppBinary(&ToldEnds::callback, &told, "beta"));

    EXPECT_THAT(told.waitFor(2), ElementsAre(Pair("alpha", -3), Pair("beta", 0)));
}

TEST_F(PackageDownload, IsNotDoubledWhileOneOfThatNameRunsOrWaits)
{
    std::atomic<bool> goOn{false};
    const LocalHttpServer server([&](const HttpRequest& request, HttpConnection& connection) {
        while (!goOn) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        sendPackage(request, connection, "package");
    });
    configure("address = " + server.address() + "\n");

    ToldEnds told;
    EXPECT_TRUE(ABM_DownloadAppBinary(&ToldEnds::callback, &told, "alpha"));
    EXPECT_TRUE(ABM_DownloadAppBinary(&ToldEnds::callback, &told, "beta"));
    server.waitForRequests(1);
    EXPECT_TRUE(ABM_DownloadAppBinary(&ToldEnds::callback, &told, "beta"));
    EXPECT_TRUE(ABM_DownloadAppBinary(&ToldEnds::callback, &told, "alpha"));
    EXPECT_TRUE(ABM_DownloadAppBinary(nullptr, nullptr, "alpha"));
    goOn = true;

    EXPECT_THAT(told.waitFor(4),
                ElementsAre(Pair("alpha", 0), Pair("alpha", 0), Pair("beta", 0), Pair("beta", 0)));
    EXPECT_EQ(server.requests().size(), 2U);
}

TEST_F(PackageDownload, IsDoneAnewWhenItIsAskedForAfterItsEnd)
{
    const LocalHttpServer server([&](const HttpRequest& request, HttpConnection& connection) {
        sendPackage(request, connection, "package");
    });
    configureFor(server.address());

    EXPECT_EQ(download("alpha"), 0);
    EXPECT_EQ(download("alpha"), 0);

    EXPECT_EQ(server.requests().size(), 2U);
}

void throwing(const std::string& /*identifier*/, int /*status*/, void* /*user_data*/)
{
    throw std::runtime_error("a careless listener");
}

TEST_F(PackageDownload, OutlivesACallbackThatThrows)
{
    const LocalHttpServer server([&](const HttpRequest& request, HttpConnection& connection) {
        sendPackage(request, connection, "package");
    });
    configureFor(server.address());

    EXPECT_TRUE(ABM_DownloadAppBinary(&throwing, nullptr, "alpha"));
    EXPECT_EQ(download("beta"), 0);

    expectTextAmong(captured.lines(), like("*a careless listener*"));
}

void askForBeta(const std::string& /*identifier*/, int /*status*/, void* told)
{
    EXPECT_TRUE(ABM_DownloadAppBinary(&ToldEnds::callback, told, "beta"));
}

TEST_F(PackageDownload, MayBeRequestedFromACallback)
{
    const LocalHttpServer server([&](const HttpRequest& request, HttpConnection& connection) {
        sendPackage(request, connection, "package");
    });
    configureFor(server.address());

    ToldEnds told;
    EXPECT_TRUE(ABM_DownloadAppBinary(&askForBeta, &told, "alpha"));

    EXPECT_THAT(told.waitFor(1), ElementsAre(Pair("beta", 0)));
}

TEST_F(PackageDownload, IsRefusedForWhatIsNoIdentifier)
{
    const LocalHttpServer server([&](const HttpRequest& request, HttpConnection& connection) {
        sendPackage(request, connection, "package");
    });
    configureFor(server.address());

    const std::string longest(127, 'a');
    for (const std::string& text :
         {std::string(), std::string("."), std::string("../alpha"), std::string("al/pha"),
          std::string("alpha.img"), std::string("al pha"), std::string("al-pha"),
          std::string("al_pha"), std::string("alph\xc3\xa4"), std::string("al\0pha", 6),
          std::string("alpha\n"), longest + "a"}) {
        captured.clear();
        EXPECT_EQ(download(text), 1) << text;
        SCOPED_TRACE(text);
        expectTexts(captured.lines(),
                    {like("QUILLON-PLATFORM E download-entry.cpp: *1 to 127 letters and digits*")});
    }
    EXPECT_TRUE(server.requests().empty());
    EXPECT_EQ(download(longest), 0);
    expectTexts(namesInDirectory(), {longest + ".img"});
}

}  // namespace
