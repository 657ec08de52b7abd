// What quillonctl doctor says of the real daemon.

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>
#include <regex>
#include <set>

#include "support/host-user.h"
#include "system/system-test.h"
#include "unit/tools/ctl-program.h"

namespace quillon::test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

/// The example modules tuner, panel and camera.
class DiagnosedService : public SystemTest
{
protected:
    void SetUp() override
    {
        umask(0022);
        SystemTest::SetUp();
        fs::create_directories("/run/quillon/run");
    }

    static std::string doctorSays() { return runCtl({"doctor"}).out; }

    static std::set<std::string> codesThatDoctorFinds()
    {
        const std::string said = runCtl({"--json", "doctor"}).out;
        const std::regex code("\"code\":\"([a-z-]+)\"");
        std::set<std::string> codes;
        for (std::sregex_iterator it(said.begin(), said.end(), code), end; it != end; ++it) {
            codes.insert((*it)[1].str());
        }
        return codes;
    }
};

TEST_F(DiagnosedService, HasNoFaultOfItsOwnWhileItRuns)
{
    struct stat root = {};
    if (stat("/", &root) != 0 || root.st_uid != 0 || !forgetHostsUser("quillon")) {
        GTEST_SKIP() << "\"/\" is not root's, or the service's user is this machine's";
    }
    startDaemon();

    // The helpers do not run here, and the packages' directory is as anybody makes one.
    std::set<std::string> codes = codesThatDoctorFinds();
    codes.erase("helper-missing");
    EXPECT_EQ(codes, std::set<std::string>{"packages-open"});
}

TEST_F(DiagnosedService, NamesTheModuleThatTookItDownWhenItStarted)
{
    installTestModule("broken", "getEMPID.effect=crash\n");
    daemon.start();
    ASSERT_TRUE(daemon.waitForEnd(kPatience));

    EXPECT_THAT(doctorSays(),
                HasSubstr("error: the module broken took the service down while it was loaded, at "
                          "the last start\n"
                          "    take broken.so out of /usr/fwupdate/controls/ or mend it"));

    SCOPED_TRACE("at the next start it is gone");
    removeModule("broken");
    startDaemon();
    EXPECT_THAT(doctorSays(), HasSubstr("warning: the module broken took the service down while it "
                                        "was loaded, at the start before the last\n"));
}

TEST_F(DiagnosedService, NamesTheModuleThatItWasUpdatingWhenItWasKilled)
{
    putImagesForAll("2.0");
    startDaemon();
    for (const std::string& name : allModules()) {
        setModule(name, 1, 60);
    }
    ASSERT_TRUE(start());
    ASSERT_TRUE(waitFor("the update of a module", [] {
        return !linesOf("/run/quillon/run/update.jsonl", "\"started\"").empty();
    }));
    daemon.kill();

    EXPECT_THAT(doctorSays(), HasSubstr("error: the service ended during the update of "));
}

}  // namespace
}  // namespace quillon::test
