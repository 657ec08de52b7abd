// What quillonctl doctor says of the real daemon.

#include <gmock/gmock.h>

#include <filesystem>

#include "system/system-test.h"
#include "unit/tools/ctl-program.h"

namespace quillon::test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::Not;

/// The example modules tuner, panel and camera.
class DiagnosedService : public SystemTest
{
protected:
    void SetUp() override
    {
        SystemTest::SetUp();
        fs::create_directories("/run/quillon/run");
    }

    static std::string doctorSays() { return runCtl({"doctor"}).out; }
};

TEST_F(DiagnosedService, HasNoFaultOfItsOwnWhileItRuns)
{
    startDaemon();

    const std::string said = doctorSays();

    // The device lacks the helpers, and what tmpfiles makes.
    for (const char* fault : {"marker", "event", "queue", "replies", "start", "module ", "key",
                              "update semaphore", "does not run"}) {
        EXPECT_THAT(said, Not(HasSubstr(fault)));
    }
}

TEST_F(DiagnosedService, NamesTheModuleThatTookItDownWhenItStarted)
{
    installTestModule("broken", "getEMPID.effect=crash\n");
    daemon.start();
    ASSERT_TRUE(daemon.waitForEnd(std::chrono::seconds(30)));

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
    setModule("tuner", 1, 60);
    ASSERT_TRUE(start());
    ASSERT_TRUE(waitFor("the update of a module", [] {
        return !linesOf("/run/quillon/run/update.jsonl", "\"started\"").empty();
    }));
    daemon.kill();

    EXPECT_THAT(doctorSays(), HasSubstr("error: the service ended during the update of "));
}

}  // namespace
}  // namespace quillon::test
