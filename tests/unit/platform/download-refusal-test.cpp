#include <gtest/gtest.h>

#include "download-fixture.h"
#include "support/files.h"
#include "support/texts.h"

namespace {

using quillon::test::expectTextAmong;
using quillon::test::expectTexts;
using quillon::test::like;
using quillon::test::readAll;
using quillon::test::writeFile;

class DownloadRefusal : public DownloadFixture
{
protected:
    /// Expects one error line with that reason, and nothing left in the directory.
    void expectRefusal(const std::string& reason)
    {
        expectTexts(
            captured.lines(),
            {like("QUILLON-PLATFORM E package-download.cpp: *package alpha cannot be downloaded: " +
                  reason + "*")});
        expectTexts(namesInDirectory(), {});
        captured.clear();
    }

    /// Breaks a package off in its middle, and expects an answer with these lines for the rest of
    /// it to be refused for that reason.
    void expectRestRefused(std::vector<std::string> lines, const std::string& reason)
    {
        const std::string package = packageOf(1000);
        lines.insert(lines.end(), {"ETag: \"one\"", "Content-Range: bytes 500-999/1000"});
        const LocalHttpServer server([&](const HttpRequest& request, HttpConnection& connection) {
            if (request.offset() == 0) {
                sendBeginning(connection, package, 500);
            } else {
                connection.send(httpHead("206 Partial Content", lines) + package.substr(500));
            }
        });
        configureFor(server.address());

        EXPECT_EQ(download("alpha"), -3);

        expectTextAmong(captured.lines(), like("*" + reason + "*"));
        expectTexts(namesInDirectory(), {});
    }

    CapturedStderr captured;
};

TEST_F(DownloadRefusal, OfWhatTheServerDoesNotHave)
{
    for (const char* status : {"404 Not Found", "403 Forbidden", "401 Unauthorized", "410 Gone",
                               "204 No Content", "206 Partial Content", "304 Not Modified"}) {
        const LocalHttpServer server([&](const HttpRequest&, HttpConnection& connection) {
            connection.send(httpHead(status, {"Content-Length: 0"}));
        });
        configureFor(server.address());

        EXPECT_EQ(download("alpha"), -3) << status;

        expectRefusal("the server answers " + std::string(status, 3));
        EXPECT_EQ(server.requests().size(), 1U);
    }
}

TEST_F(DownloadRefusal, OfAnEndlessErrorPage)
{
    const LocalHttpServer server([&](const HttpRequest&, HttpConnection& connection) {
        connection.send(httpHead("404 Not Found", {}));
        while (connection.send(std::string(10000, 'x'))) {
        }
    });
    configureFor(server.address());

    EXPECT_EQ(download("alpha"), -3);

    expectRefusal("the server answers 404");
}

TEST_F(DownloadRefusal, DoesNotWaitForTheRestOfAnErrorPage)
{
    const LocalHttpServer server([&](const HttpRequest&, HttpConnection& connection) {
        connection.send(httpHead("404 Not Found", {"Content-Length: 1000"}) + "x");
        connection.stall();
    });
    configureFor(server.address(), "stall-timeout = 3600\n");

    EXPECT_EQ(download("alpha"), -3);

    expectRefusal("the server answers 404");
}

TEST_F(DownloadRefusal, OfARedirectionWithAnEndlessPage)
{
    const LocalHttpServer server([&](const HttpRequest&, HttpConnection& connection) {
        connection.send(httpHead("302 Found", {"Location: elsewhere"}));
        while (connection.send(std::string(10000, 'x'))) {
        }
    });
    configureFor(server.address());

    EXPECT_EQ(download("alpha"), -3);

    expectRefusal("the server answers 302");
    EXPECT_EQ(server.requests().size(), 1U);
}

TEST_F(DownloadRefusal, OfAnEmptyPackage)
{
    const LocalHttpServer server([&](const HttpRequest&, HttpConnection& connection) {
        connection.send(httpHead("200 OK", {"Content-Length: 0"}));
    });
    configureFor(server.address());

    EXPECT_EQ(download("alpha"), -3);

    expectRefusal("the package is empty");
}

TEST_F(DownloadRefusal, OfABodyWhoseEndOnlyTheConnectionWouldTell)
{
    const LocalHttpServer server([&](const HttpRequest&, HttpConnection& connection) {
        connection.send(httpHead("200 OK", {}) + "is this all?");
    });
    configureFor(server.address());

    EXPECT_EQ(download("alpha"), -3);

    expectRefusal("the server does not tell where the package ends");
}

TEST_F(DownloadRefusal, OfABodyInACodingThatDoesNotTellItsEnd)
{
    for (const char* coding : {"Transfer-Encoding:", "Transfer-Encoding: identity"}) {
        const LocalHttpServer server([&](const HttpRequest&, HttpConnection& connection) {
            connection.send(httpHead("200 OK", {coding}) + "is this all?");
        });
        configureFor(server.address());

        EXPECT_EQ(download("alpha"), -3) << coding;

        expectRefusal("the server does not tell where the package ends");
    }
}

TEST_F(DownloadRefusal, OfABodyWhoseLastCodingIsNotChunked)
{
    for (const char* coding :
         {"Transfer-Encoding: chunked, identity", "Transfer-Encoding: x-chunked",
          "Transfer-Encoding: chunked,", "Transfer-Encoding: identity,\r\n chunked",
          "Transfer-Encoding: identity\r\nTransfer-Encoding: ",
          "Transfer-Encoding: chunked\r\nTransfer-Encoding: identity"}) {
        const LocalHttpServer server([&](const HttpRequest&, HttpConnection& connection) {
            connection.send(httpHead("200 OK", {coding}) + "7\r\npackage\r\n0\r\n\r\n");
        });
        configureFor(server.address(), "attempts = 1\n");

        EXPECT_NE(download("alpha"), 0) << coding;

        EXPECT_EQ(readAll(pathOf("alpha.img")), "") << coding;
    }
}

TEST_F(DownloadRefusal, OfTwoAnnouncedSizes)
{
    const std::string package = packageOf(1000);
    for (const char* sizes :
         {"Content-Length: 1000\r\nContent-Length: 500",
          "Content-Length: 500\r\nContent-Length: 1000", "Content-Length: 500, 1000"}) {
        const LocalHttpServer server([&](const HttpRequest&, HttpConnection& connection) {
            connection.send(httpHead("200 OK", {sizes}) + package);
        });
        configureFor(server.address());

        EXPECT_EQ(download("alpha"), -3) << sizes;

        expectRefusal("the server's Content-Length is ambiguous");
    }
}

TEST_F(DownloadRefusal, OfARestWithTwoAnnouncedSizes)
{
    expectRestRefused({"Content-Length: 100", "Content-Length: 500"},
                      "the server's Content-Length is ambiguous");
}

TEST_F(DownloadRefusal, DoesNotMeetASizeThatIsAnnouncedTwice)
{
    const LocalHttpServer server([&](const HttpRequest&, HttpConnection& connection) {
        connection.send(httpHead("200 OK", {"Content-Length: 7", "Content-Length: 7"}) + "package");
    });
    configureFor(server.address());

    EXPECT_EQ(download("alpha"), 0);

    EXPECT_EQ(readAll(pathOf("alpha.img")), "package");
}

TEST_F(DownloadRefusal, OfAnEncodedPackage)
{
    for (const char* coding :
         {"Content-Encoding: gzip", "Content-Encoding: x-unknown", "content-encoding:  GZIP, br",
          "Content-Encoding: identity\r\nContent-Encoding: gzip"}) {
        const LocalHttpServer server([&](const HttpRequest&, HttpConnection& connection) {
            connection.send(httpHead("200 OK", {coding, "Content-Length: 7"}) + "package");
        });
        configureFor(server.address());

        EXPECT_EQ(download("alpha"), -3) << coding;

        expectRefusal(
            "the server sends the package in a Content-Encoding, which was not asked for");
    }
}

TEST_F(DownloadRefusal, OfAnEncodedRest)
{
    expectRestRefused({"Content-Length: 500", "Content-Encoding: gzip"},
                      "in a Content-Encoding, which was not asked for");
}

TEST_F(DownloadRefusal, DoesNotMeetAPackageInTheEncodingIdentity)
{
    const LocalHttpServer server([&](const HttpRequest&, HttpConnection& connection) {
        connection.send(httpHead("200 OK", {"Content-Encoding: identity", "Content-Length: 7"}) +
                        "package");
    });
    configureFor(server.address());

    EXPECT_EQ(download("alpha"), 0);

    EXPECT_EQ(readAll(pathOf("alpha.img")), "package");
}

TEST_F(DownloadRefusal, OfAnAnnouncedSizeAboveTheLimit)
{
    const LocalHttpServer server([&](const HttpRequest&, HttpConnection& connection) {
        connection.send(httpHead("200 OK", {"Content-Length: 1001"}) + std::string(10, 'x'));
        connection.stall();
    });
    configureFor(server.address(), "size-limit = 1000\n");

    EXPECT_EQ(download("alpha"), -4);

    expectRefusal("the package is larger than the size limit");
}

TEST_F(DownloadRefusal, OfABodyWithoutEndAtTheLimit)
{
    std::atomic<std::size_t> sent{0};
    const LocalHttpServer server([&](const HttpRequest&, HttpConnection& connection) {
        connection.send(httpHead("200 OK", {"Transfer-Encoding: chunked", "ETag: \"one\""}));
        while (connection.send("3e8\r\n" + std::string(1000, 'x') + "\r\n")) {
            sent += 1000;
        }
    });
    configureFor(server.address(), "size-limit = 100000\n");

    EXPECT_EQ(download("alpha"), -4);

    expectRefusal("the package is larger than the size limit");
    EXPECT_GE(sent, 100000U);
}

TEST_F(DownloadRefusal, OfARestThatGoesBeyondTheLimit)
{
    const LocalHttpServer server([&](const HttpRequest& request, HttpConnection& connection) {
        if (request.offset() == 0) {
            sendBeginning(connection, std::string(1000, 'x'), 500);
            return;
        }
        connection.send(httpHead("206 Partial Content", {"Content-Length: 501", "ETag: \"one\"",
                                                         "Content-Range: bytes 500-1000/1001"}) +
                        "x");
        connection.stall();
    });
    configureFor(server.address(), "size-limit = 1000\n");

    EXPECT_EQ(download("alpha"), -4);

    expectTextAmong(captured.lines(), like("*larger than the size limit*"));
    expectTexts(namesInDirectory(), {});
}

TEST_F(DownloadRefusal, DoesNotMeetAPackageOfJustTheLimit)
{
    const LocalHttpServer server([&](const HttpRequest& request, HttpConnection& connection) {
        sendPackage(request, connection, std::string(1000, 'x'));
    });
    configureFor(server.address(), "size-limit = 1000\n");

    EXPECT_EQ(download("alpha"), 0);
}

TEST_F(DownloadRefusal, DoesNotMeetAPackageInChunks)
{
    const LocalHttpServer server([&](const HttpRequest&, HttpConnection& connection) {
        connection.send(httpHead("200 OK", {"Transfer-Encoding: chunked"}) +
                        "7\r\npackage\r\n4\r\n of \r\n6\r\nchunks\r\n0\r\n\r\n");
    });
    configureFor(server.address());

    EXPECT_EQ(download("alpha"), 0);

    EXPECT_EQ(readAll(pathOf("alpha.img")), "package of chunks");
}

TEST_F(DownloadRefusal, DoesNotMeetChunksHoweverTheirNameIsWritten)
{
    for (const char* coding : {"Transfer-Encoding: Chunked", "transfer-encoding:  CHUNKED "}) {
        const LocalHttpServer server([&](const HttpRequest&, HttpConnection& connection) {
            connection.send(httpHead("200 OK", {coding}) + "7\r\npackage\r\n0\r\n\r\n");
        });
        configureFor(server.address());

        EXPECT_EQ(download("alpha"), 0) << coding;

        EXPECT_EQ(readAll(pathOf("alpha.img")), "package");
    }
}

TEST_F(DownloadRefusal, OfChunksWithoutTheLastOne)
{
    const LocalHttpServer server([&](const HttpRequest&, HttpConnection& connection) {
        connection.send(httpHead("200 OK", {"Transfer-Encoding: chunked"}) + "7\r\npackage\r\n");
    });
    configureFor(server.address(), "attempts = 2\n");

    EXPECT_EQ(download("alpha"), -2);
    EXPECT_EQ(readAll(pathOf("alpha.img")), "");
}

TEST_F(DownloadRefusal, OfABodyShorterThanAnnounced)
{
    const LocalHttpServer server([&](const HttpRequest&, HttpConnection& connection) {
        connection.send(httpHead("200 OK", {"Content-Length: 1001"}) + std::string(1000, 'x'));
    });
    configureFor(server.address(), "attempts = 3\n");

    EXPECT_EQ(download("alpha"), -2);

    EXPECT_EQ(server.requests().size(), 3U);
    expectTextAmong(captured.lines(), like("*given up after 3 attempts*"));
}

TEST_F(DownloadRefusal, OfWhatComesAfterTheAnnouncedSize)
{
    const LocalHttpServer server([&](const HttpRequest&, HttpConnection& connection) {
        connection.send(httpHead("200 OK", {"Content-Length: 7"}) + "package and more");
    });
    configureFor(server.address());

    EXPECT_EQ(download("alpha"), 0);

    EXPECT_EQ(readAll(pathOf("alpha.img")), "package");
}

TEST_F(DownloadRefusal, OfWhatIsNoHttp)
{
    const LocalHttpServer server([&](const HttpRequest&, HttpConnection& connection) {
        connection.send("the package follows\r\n\r\npackage");
    });
    configureFor(server.address());

    EXPECT_EQ(download("alpha"), -3);

    expectRefusal("Received HTTP/0.9");
}

TEST_F(DownloadRefusal, OfARedirectionToAnythingButHttp)
{
    const std::string secret = pathOf("secret");
    for (const std::string& target :
         {"file://" + secret, std::string("ftp://127.0.0.1/alpha.img"),
          std::string("gopher://127.0.0.1/"), std::string("FILE://" + secret)}) {
        writeFile(secret, "secret");
        const LocalHttpServer server([&](const HttpRequest&, HttpConnection& connection) {
            connection.send(httpHead("302 Found", {"Content-Length: 0", "Location: " + target}));
        });
        configureFor(server.address());

        EXPECT_EQ(download("alpha"), -3) << target;

        unlink(secret.c_str());
        expectRefusal("the server redirects to another protocol");
        EXPECT_EQ(server.requests().size(), 1U);
    }
}

TEST_F(DownloadRefusal, OfRedirectionsWithoutEnd)
{
    const LocalHttpServer server([&](const HttpRequest& request, HttpConnection& connection) {
        connection.send(
            httpHead("302 Found", {"Content-Length: 0", "Location: " + request.path + "x"}));
    });
    configureFor(server.address());

    EXPECT_EQ(download("alpha"), -3);

    expectRefusal("the server redirects too often");
    EXPECT_EQ(server.requests().size(), 6U);
}

TEST_F(DownloadRefusal, DoesNotMeetASensibleRedirection)
{
    for (const char* status : {"301 Moved Permanently", "302 Found", "303 See Other",
                               "307 Temporary Redirect", "308 Permanent Redirect"}) {
        const LocalHttpServer server([&](const HttpRequest& request, HttpConnection& connection) {
            if (request.path == "/alpha.img") {
                connection.send(
                    httpHead(status, {"Content-Length: 5", "Location: elsewhere/alpha"}) + "there");
                return;
            }
            sendPackage(request, connection, "package");
        });
        configureFor(server.address());

        EXPECT_EQ(download("alpha"), 0) << status;

        EXPECT_EQ(readAll(pathOf("alpha.img")), "package");
        ASSERT_EQ(server.requests().size(), 2U);
        EXPECT_EQ(server.requests()[1].path, "/elsewhere/alpha");
    }
}

}  // namespace
