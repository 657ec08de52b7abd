#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <filesystem>

#include "download-fixture.h"
#include "running-library.h"
#include "support/files.h"
#include "support/process.h"
#include "support/texts.h"

namespace {

using quillon::test::expectTexts;
using quillon::test::like;
using quillon::test::outputOf;
using quillon::test::readAll;
using quillon::test::writeFile;

namespace fs = std::filesystem;

/// An HTTPS server for "localhost" with a certificate of its own; it answers with whole replies out
/// of files.
class HttpsServer
{
public:
    HttpsServer()
    {
        fs::create_directories(kDirectory);
        outputOf(
            "openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=localhost "
            "-addext subjectAltName=DNS:localhost -keyout " +
            certificate() + ".key -out " + certificate() + " 2>&1");
        start();
    }
    ~HttpsServer()
    {
        kill(child_, SIGKILL);
        waitpid(child_, nullptr, 0);
        if (output_ != nullptr) {
            fclose(output_);
        }
        fs::remove_all(kDirectory);
    }
    HttpsServer(const HttpsServer&) = delete;
    HttpsServer& operator=(const HttpsServer&) = delete;

    std::string address() const { return "https://localhost:" + port_ + "/"; }
    static std::string certificate() { return kDirectory + std::string("/certificate.pem"); }
    static std::string replyFile(const std::string& name) { return kDirectory + ("/" + name); }

private:
    static constexpr char kDirectory[] = "/tmp/quillon-https";

    void start()
    {
        int output[2] = {-1, -1};
        ASSERT_EQ(pipe(output), 0);
        child_ = fork();
        if (child_ == 0) {
            dup2(output[1], STDOUT_FILENO);
            dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
            if (chdir(kDirectory) == 0) {
                execlp("openssl", "openssl", "s_server", "-HTTP", "-accept", "127.0.0.1:0", "-cert",
                       "certificate.pem", "-key", "certificate.pem.key", nullptr);
            }
            _exit(127);
        }
        close(output[1]);
        output_ = fdopen(output[0], "r");
        char line[256] = "";
        while (port_.empty() && fgets(line, sizeof line, output_) != nullptr) {
            const std::string text = line;
            if (text.find("ACCEPT 127.0.0.1:") == 0) {
                port_ = text.substr(17, text.find('\n') - 17);
            }
        }
        ASSERT_NE(port_, "");
    }

    pid_t child_ = -1;
    FILE* output_ = nullptr;
    std::string port_;
};

class DownloadHttps : public DownloadFixture
{
protected:
    const HttpsServer server;
    CapturedStderr captured;
};

TEST_F(DownloadHttps, TrustsTheAuthoritiesThatTheSettingsName)
{
    writeFile(HttpsServer::replyFile("alpha.img"),
              httpHead("200 OK", {"Content-Length: 7"}) + "package");
    configureFor(server.address(), "ca-file = " + HttpsServer::certificate() + "\n");

    EXPECT_EQ(download("alpha"), 0);

    EXPECT_EQ(readAll(pathOf("alpha.img")), "package");
}

TEST_F(DownloadHttps, TrustsNoServerThatNobodyVouchesFor)
{
    writeFile(HttpsServer::replyFile("alpha.img"),
              httpHead("200 OK", {"Content-Length: 7"}) + "package");
    configureFor(server.address());

    EXPECT_EQ(download("alpha"), -3);

    expectTexts(captured.lines(), {like("*certificate*")});
    expectTexts(namesInDirectory(), {});
}

TEST_F(DownloadHttps, TrustsNoCertificateOfAnotherName)
{
    std::string address = server.address();
    address.replace(address.find("localhost"), 9, "127.0.0.1");
    configureFor(address, "ca-file = " + HttpsServer::certificate() + "\n");

    EXPECT_EQ(download("alpha"), -3);

    expectTexts(namesInDirectory(), {});
}

TEST_F(DownloadHttps, NeedsTheFileOfAuthorities)
{
    configureFor(server.address(), "ca-file = /etc/quillon/missing.pem\n");

    EXPECT_EQ(download("alpha"), -3);

    expectTexts(captured.lines(), {like("*/etc/quillon/missing.pem*")});
}

TEST_F(DownloadHttps, IsNotLeftForPlainHttp)
{
    const LocalHttpServer plain([&](const HttpRequest& request, HttpConnection& connection) {
        sendPackage(request, connection, "package");
    });
    writeFile(HttpsServer::replyFile("alpha.img"),
              httpHead("302 Found", {"Content-Length: 0", "Location: " + plain.address()}));
    configureFor(server.address(), "ca-file = " + HttpsServer::certificate() + "\n");

    EXPECT_EQ(download("alpha"), -3);

    EXPECT_TRUE(plain.requests().empty());
    expectTexts(captured.lines(), {like("*the server redirects to another protocol*")});
}

TEST_F(DownloadHttps, IsNotLeftForPlainHttpByADetourEither)
{
    const LocalHttpServer plain([&](const HttpRequest& request, HttpConnection& connection) {
        if (request.path == "/alpha.img") {
            connection.send(httpHead(
                "302 Found", {"Content-Length: 0", "Location: " + server.address() + "alpha.img"}));
            return;
        }
        sendPackage(request, connection, "package");
    });
    writeFile(
        HttpsServer::replyFile("alpha.img"),
        httpHead("302 Found", {"Content-Length: 0", "Location: " + plain.address() + "back"}));
    configureFor(plain.address(), "ca-file = " + HttpsServer::certificate() + "\n");

    EXPECT_EQ(download("alpha"), -3);

    EXPECT_EQ(plain.requests().size(), 1U);
    expectTexts(captured.lines(), {like("*the server redirects to another protocol*")});
}

TEST_F(DownloadHttps, IsWherePlainHttpMayLeadTo)
{
    writeFile(HttpsServer::replyFile("alpha.img"),
              httpHead("200 OK", {"Content-Length: 7"}) + "package");
    const LocalHttpServer plain([&](const HttpRequest&, HttpConnection& connection) {
        connection.send(httpHead(
            "302 Found", {"Content-Length: 0", "Location: " + server.address() + "alpha.img"}));
    });
    configureFor(plain.address(), "ca-file = " + HttpsServer::certificate() + "\n");

    EXPECT_EQ(download("alpha"), 0);

    EXPECT_EQ(readAll(pathOf("alpha.img")), "package");
}

}  // namespace
