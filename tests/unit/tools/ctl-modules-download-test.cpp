// quillonctl modules download, from a real HTTP server.

#include <filesystem>
#include <fstream>

#include "support/files.h"
#include "support/texts.h"
#include "unit/platform/local-http-server.h"
#include "unit/tools/ctl-modules-device.h"

namespace {

using quillon::test::expectText;
using quillon::test::like;
using quillon::test::readAll;

constexpr const char* kConfiguration = "/etc/quillon/downloads.conf";
constexpr const char* kPackage = "/opt/usr/apps/appbinarymanager/alphaemp.img";

void answer(const HttpRequest& request, HttpConnection& connection)
{
    const bool known = request.path == "/alphaemp.img";
    const std::string body = known ? "the package of alpha" : "";
    connection.send(httpHead(known ? "200 OK" : "404 Not Found",
                             {"Content-Length: " + std::to_string(body.size())}) +
                    body);
}

class CtlModulesDownload : public CtlModules
{
protected:
    CtlModulesDownload()
    {
        std::filesystem::create_directories("/etc/quillon");
        std::ofstream(kConfiguration)
            << "address = " << server.address() << "\nattempts = 1\nretry-pause = 1\n";
        install("alpha");
    }

    LocalHttpServer server{answer};
};

}  // namespace

TEST_F(CtlModulesDownload, WaitsUntilThePackagesAreThere)
{
    const ModulesResult result = runModules({"download"});
    if (result.out.find("did not accept") != std::string::npos) {
        GTEST_SKIP() << "this platform has no downloads";
    }

    EXPECT_EQ(result.exitCode, 0) << result.log;
    EXPECT_EQ(result.out, "Downloading 1 package\nalpha: downloaded\n");
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(readAll(kPackage), "the package of alpha");
}

TEST_F(CtlModulesDownload, TellsWhichPackageDidNotComeAndExitsWith14)
{
    install("beta");

    const ModulesResult result = runModules({"--json", "download"});
    if (result.out.find("did not accept") != std::string::npos) {
        GTEST_SKIP() << "this platform has no downloads";
    }
    const Json::Value document = json({"download"}, 14);

    EXPECT_EQ(document["event"], "modules-download");
    EXPECT_EQ(document["exitCode"], 14);
    EXPECT_EQ(moduleIn(document, "alpha")["downloaded"], true);
    EXPECT_EQ(moduleIn(document, "beta")["downloaded"], false);
    expectText(moduleIn(document, "beta")["reason"].asString(),
               like("status *, the log (standard error) says why"));
}
