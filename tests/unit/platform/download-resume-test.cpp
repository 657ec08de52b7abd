#include <gtest/gtest.h>

#include <chrono>

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

constexpr std::size_t kSize = 200000;
constexpr std::size_t kDrop = 70000;

class DownloadResume : public DownloadFixture
{
protected:
    const std::string package = packageOf(kSize);
    CapturedStderr captured;

    /// Sends the beginning to the first request, and leaves the next ones to the test.
    LocalHttpServer::Answer dropFirst(LocalHttpServer::Answer next,
                                      const std::string& tag = "\"one\"")
    {
        return [=, first = std::make_shared<std::atomic<bool>>(true)](const HttpRequest& request,
                                                                      HttpConnection& connection) {
            if (first->exchange(false)) {
                sendBeginning(connection, package, kDrop, tag);
                return;
            }
            next(request, connection);
        };
    }

    void expectPackage() const
    {
        EXPECT_TRUE(readAll(pathOf("alpha.img")) == package);
        expectTexts(namesInDirectory(), {"alpha.img"});
    }
};

TEST_F(DownloadResume, AsksOnlyForTheRestAfterADrop)
{
    const LocalHttpServer server(
        dropFirst([&](const HttpRequest& request, HttpConnection& connection) {
            sendPackage(request, connection, package);
        }));
    configureFor(server.address());

    EXPECT_EQ(download("alpha"), 0);

    expectPackage();
    ASSERT_EQ(server.requests().size(), 2U);
    EXPECT_EQ(server.requests()[1].header("Range"), "bytes=70000-");
    EXPECT_EQ(server.requests()[1].header("If-Range"), "\"one\"");
    expectTextAmong(captured.lines(), like("*next attempt in 0 s*"));
}

TEST_F(DownloadResume, StartsOverWhenTheRestIsSaidToBeTwoParts)
{
    const LocalHttpServer server(dropFirst([&](const HttpRequest& request,
                                               HttpConnection& connection) {
        if (request.offset() == 0) {
            sendPackage(request, connection, package);
            return;
        }
        connection.send(httpHead("206 Partial Content", {"Content-Length: 130000", "ETag: \"one\"",
                                                         "Content-Range: bytes 70000-199999/200000",
                                                         "Content-Range: bytes 0-129999/200000"}) +
                        package.substr(0, 130000));
    }));
    configureFor(server.address());

    EXPECT_EQ(download("alpha"), 0);

    expectPackage();
    EXPECT_EQ(server.requests().size(), 3U);
}

TEST_F(DownloadResume, GoesOnAfterManyDrops)
{
    const LocalHttpServer server([&](const HttpRequest& request, HttpConnection& connection) {
        const std::size_t offset = request.offset();
        if (offset == 0) {
            sendBeginning(connection, package, 50000);
            return;
        }
        connection.send(
            httpHead("206 Partial Content",
                     {"Content-Length: " + std::to_string(kSize - offset), "ETag: \"one\"",
                      "Content-Range: bytes " + std::to_string(offset) + "-199999/200000"}) +
            package.substr(offset, 50000));
    });
    configureFor(server.address());

    EXPECT_EQ(download("alpha"), 0);

    expectPackage();
    EXPECT_EQ(server.requests().size(), 4U);
}

TEST_F(DownloadResume, TakesTheDateWhereThereIsNoStrongTag)
{
    const std::string date = "Last-Modified: Mon, 02 Feb 2026 02:02:02 GMT";
    const LocalHttpServer server([&](const HttpRequest& request, HttpConnection& connection) {
        if (request.offset() == 0) {
            connection.send(
                httpHead("200 OK", {"Content-Length: 200000", "ETag: W/\"one\"", date}) +
                package.substr(0, kDrop));
            return;
        }
        connection.send(
            httpHead("206 Partial Content", {"Content-Length: 130000", "ETag: W/\"one\"", date,
                                             "Content-Range: bytes 70000-199999/200000"}) +
            package.substr(kDrop));
    });
    configureFor(server.address());

    EXPECT_EQ(download("alpha"), 0);

    expectPackage();
    EXPECT_EQ(server.requests()[1].header("If-Range"), "Mon, 02 Feb 2026 02:02:02 GMT");
}

TEST_F(DownloadResume, StartsAnewWhereTheServerNamesNoState)
{
    std::atomic<int> count{0};
    const LocalHttpServer server([&](const HttpRequest&, HttpConnection& connection) {
        connection.send(httpHead("200 OK", {"Content-Length: 200000"}) +
                        package.substr(0, count++ == 0 ? kDrop : kSize));
    });
    configureFor(server.address());

    EXPECT_EQ(download("alpha"), 0);

    expectPackage();
    EXPECT_EQ(server.requests()[1].header("Range"), "");
}

TEST_F(DownloadResume, StartsAnewWhenTheServerIgnoresTheRange)
{
    const LocalHttpServer server(dropFirst([&](const HttpRequest&, HttpConnection& connection) {
        sendBeginning(connection, package, kSize);
    }));
    configureFor(server.address());

    EXPECT_EQ(download("alpha"), 0);

    expectPackage();
    EXPECT_EQ(server.requests()[1].header("Range"), "bytes=70000-");
    EXPECT_EQ(server.requests().size(), 2U);
}

TEST_F(DownloadResume, StartsAnewWhenTheFileHasChangedMeanwhile)
{
    // A new file of just the size of the old one's part is no end of the old one either.
    for (const std::size_t size : {std::size_t{1000}, kDrop}) {
        const std::string newer(size, 'n');
        const LocalHttpServer server(
            dropFirst([&](const HttpRequest& request, HttpConnection& connection) {
                sendPackage(request, connection, newer, "\"two\"");
            }));
        configureFor(server.address());

        EXPECT_EQ(download("alpha"), 0);

        EXPECT_TRUE(readAll(pathOf("alpha.img")) == newer) << size;
    }
}

TEST_F(DownloadResume, NeverMixesPartsOfTwoStates)
{
    // This server does not look at If-Range.
    const std::string newer(kSize, 'n');
    const LocalHttpServer server(
        dropFirst([&](const HttpRequest& request, HttpConnection& connection) {
            if (request.offset() == 0) {
                sendBeginning(connection, newer, kSize, "\"two\"");
                return;
            }
            connection.send(
                httpHead("206 Partial Content", {"Content-Length: 130000", "ETag: \"two\"",
                                                 "Content-Range: bytes 70000-199999/200000"}) +
                newer.substr(kDrop));
        }));
    configureFor(server.address());

    EXPECT_EQ(download("alpha"), 0);

    EXPECT_TRUE(readAll(pathOf("alpha.img")) == newer);
    ASSERT_EQ(server.requests().size(), 3U);
    EXPECT_EQ(server.requests()[2].header("Range"), "");
}

TEST_F(DownloadResume, StartsAnewWhenAnotherRangeComesThanTheOneAskedFor)
{
    for (const char* range :
         {"bytes 69999-199999/200000", "bytes 70001-199999/200000", "bytes 0-199999/200000",
          "bytes 70000-199998/200000", "bytes 70000-199999/*", "bytes 70000-199999",
          "bytes */200000", "bytes 70000-60000/60001", "items 70000-199999/200000",
          "bytes -1-199999/200000", "bytes 70000-199999/200000x",
          "bytes 18446744073709551616-199999/200000", "bytes 70000-18446744073709551615/0", "bytes",
          ""}) {
        const LocalHttpServer server(
            dropFirst([&](const HttpRequest& request, HttpConnection& connection) {
                if (request.offset() == 0) {
                    sendPackage(request, connection, package);
                    return;
                }
                connection.send(
                    httpHead("206 Partial Content", {"Content-Length: 130000", "ETag: \"one\"",
                                                     std::string("Content-Range: ") + range}) +
                    std::string(130000, 'x'));
            }));
        configureFor(server.address());

        EXPECT_EQ(download("alpha"), 0) << range;

        EXPECT_TRUE(readAll(pathOf("alpha.img")) == package) << range;
        EXPECT_EQ(server.requests().size(), 3U) << range;
    }
}

TEST_F(DownloadResume, StartsAnewWhenTheRestIsNotToBeHad)
{
    const LocalHttpServer server(
        dropFirst([&](const HttpRequest& request, HttpConnection& connection) {
            if (request.offset() == 0) {
                sendPackage(request, connection, package);
                return;
            }
            connection.send(httpHead("416 Range Not Satisfiable",
                                     {"Content-Length: 0", "Content-Range: bytes */60000"}));
        }));
    configureFor(server.address());

    EXPECT_EQ(download("alpha"), 0);

    expectPackage();
    EXPECT_EQ(server.requests().size(), 3U);
}

TEST_F(DownloadResume, GoesOnWhenTheRestIsShorterThanItsRange)
{
    const LocalHttpServer server(
        dropFirst([&](const HttpRequest& request, HttpConnection& connection) {
            const std::size_t offset = request.offset();
            const std::size_t sent = offset == kDrop ? 1000 : kSize - offset;
            connection.send(
                httpHead("206 Partial Content",
                         {"Content-Length: " + std::to_string(sent), "ETag: \"one\"",
                          "Content-Range: bytes " + std::to_string(offset) + "-199999/200000"}) +
                package.substr(offset, sent));
        }));
    configureFor(server.address());

    EXPECT_EQ(download("alpha"), 0);

    expectPackage();
    ASSERT_EQ(server.requests().size(), 3U);
    EXPECT_EQ(server.requests()[2].header("Range"), "bytes=71000-");
}

TEST_F(DownloadResume, StartsAnewWhenTheRestIsLongerThanItsRange)
{
    const LocalHttpServer server(
        dropFirst([&](const HttpRequest& request, HttpConnection& connection) {
            if (request.offset() == 0) {
                sendPackage(request, connection, package);
                return;
            }
            connection.send(
                httpHead("206 Partial Content", {"Content-Length: 130001", "ETag: \"one\"",
                                                 "Content-Range: bytes 70000-199999/200000"}) +
                package.substr(kDrop) + "x");
        }));
    configureFor(server.address());

    EXPECT_EQ(download("alpha"), 0);

    expectPackage();
    EXPECT_EQ(server.requests().size(), 3U);
}

TEST_F(DownloadResume, GoesOnAfterTheServersOwnTrouble)
{
    for (const char* status :
         {"500 Internal Server Error", "502 Bad Gateway", "503 Service Unavailable",
          "504 Gateway Timeout", "429 Too Many Requests", "408 Request Timeout"}) {
        std::atomic<bool> trouble{true};
        const LocalHttpServer server([&](const HttpRequest& request, HttpConnection& connection) {
            if (trouble.exchange(false)) {
                connection.send(httpHead(status, {"Content-Length: 7"}) + "trouble");
                return;
            }
            sendPackage(request, connection, package);
        });
        configureFor(server.address());

        EXPECT_EQ(download("alpha"), 0) << status;

        expectPackage();
        EXPECT_EQ(server.requests().size(), 2U);
    }
}

TEST_F(DownloadResume, GoesOnAfterAServerThatStandsStill)
{
    const LocalHttpServer server([&](const HttpRequest& request, HttpConnection& connection) {
        if (request.offset() == 0) {
            sendBeginning(connection, package, kDrop);
            connection.stall();
            return;
        }
        sendPackage(request, connection, package);
    });
    configureFor(server.address(), kImpatience);

    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(download("alpha"), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));

    expectPackage();
    EXPECT_EQ(server.requests()[1].header("Range"), "bytes=70000-");
}

TEST_F(DownloadResume, GivesAServerUpThatNeverAnswers)
{
    const LocalHttpServer server(
        [&](const HttpRequest&, HttpConnection& connection) { connection.stall(); });
    configureFor(server.address(), std::string("attempts = 2\n") + kImpatience);

    EXPECT_EQ(download("alpha"), -2);

    server.waitForRequests(2);
    EXPECT_EQ(server.requests().size(), 2U);
    expectTextAmong(captured.lines(), like("*given up after 2 attempts*"));
}

TEST_F(DownloadResume, GivesUpWhereNobodyListens)
{
    std::string address;
    {
        const LocalHttpServer server([](const HttpRequest&, HttpConnection&) {});
        address = server.address();
    }
    configureFor(address, "attempts = 2\n");

    EXPECT_EQ(download("alpha"), -2);
    expectTextAmong(captured.lines(), like("*given up after 2 attempts*"));
}

TEST_F(DownloadResume, IsTakenUpByTheNextRequest)
{
    std::atomic<bool> broken{true};
    const LocalHttpServer server([&](const HttpRequest& request, HttpConnection& connection) {
        if (!broken) {
            sendPackage(request, connection, package);
            return;
        }
        if (request.offset() == 0) {
            sendBeginning(connection, package, kDrop);
        }
    });
    configureFor(server.address(), "attempts = 2\n");

    EXPECT_EQ(download("alpha"), -2);
    expectTextsInAnyOrder(namesInDirectory(), {partOf("alpha"), noteOf("alpha")});
    broken = false;
    EXPECT_EQ(download("alpha"), 0);

    expectPackage();
    EXPECT_EQ(server.requests().back().header("Range"), "bytes=70000-");
}

TEST_F(DownloadResume, IsNotTakenUpFromAnotherAddress)
{
    {
        const LocalHttpServer server([&](const HttpRequest&, HttpConnection& connection) {
            sendBeginning(connection, packageOf(1000), 500);
        });
        configureFor(server.address(), "attempts = 1\n");
        EXPECT_EQ(download("alpha"), -2);
    }
    const LocalHttpServer server([&](const HttpRequest& request, HttpConnection& connection) {
        sendPackage(request, connection, package);
    });
    configureFor(server.address());
    EXPECT_EQ(download("alpha"), 0);

    expectPackage();
    EXPECT_EQ(server.requests().front().header("Range"), "");
}

TEST_F(DownloadResume, IsNotTakenUpAfterTheMachineHasStartedAnew)
{
    const LocalHttpServer server([&](const HttpRequest& request, HttpConnection& connection) {
        sendPackage(request, connection, package);
    });
    configureFor(server.address());
    // What was not synced before a power failure may read as zeros.
    writeFile(pathOf(partOf("alpha")), std::string(kDrop, '\0'));
    writeFile(pathOf(noteOf("alpha")),
              server.address() + "\n00000000-0000-0000-0000-000000000000\n\"one\"\n");

    EXPECT_EQ(download("alpha"), 0);

    expectPackage();
    EXPECT_EQ(server.requests().front().header("Range"), "");
}

TEST_F(DownloadResume, IsNotTakenUpWithADamagedNote)
{
    const LocalHttpServer server([&](const HttpRequest& request, HttpConnection& connection) {
        sendPackage(request, connection, package);
    });
    configureFor(server.address());
    for (const std::string& note :
         {std::string(), std::string("\n\n\n"), server.address(), server.address() + "\n",
          std::string(20000, '\n'), std::string(1000, '\xff')}) {
        writeFile(pathOf(partOf("alpha")), std::string(kDrop, 'x'));
        writeFile(pathOf(noteOf("alpha")), note);
        EXPECT_EQ(download("alpha"), 0);
        expectPackage();
    }
}

}  // namespace
