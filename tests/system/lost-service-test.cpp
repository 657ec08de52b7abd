// The daemon is killed while quillonctl waits for it.

#include "support/open-way.h"
#include "support/texts.h"
#include "system/system-test.h"
#include "unit/tools/ctl-program.h"
#include "unit/verifier/test-keys.h"

namespace quillon::test {
namespace {

constexpr uid_t kNobody = 65534;

class LostService : public SystemTest
{
protected:
    /// Starts a daemon whose every estimate hangs.
    void startDaemonThatHangs()
    {
        installTestModule("stuck", "checkVersion.effect=hang\n");
        putImage("stuck", "2.0", "payload");
        daemon.startAndWait();
    }

    static bool estimateHangs()
    {
        return eventually(
            [] { return !linesOf("/tmp/quillon-test-stuck.log", "checkVersion").empty(); },
            std::chrono::seconds(30));
    }
};

TEST_F(LostService, EndsTheWaitOfQuillonctlAndLeavesTheChannelToOthers)
{
    for (const uid_t user : {uid_t{0}, kNobody}) {
        if (user == kNobody && !openWayTo(QUILLONCTL_PROGRAM)) {
            GTEST_SKIP() << "nobody cannot reach the program";
        }
        SCOPED_TRACE("user " + std::to_string(user));
        ASSERT_NO_FATAL_FAILURE(startDaemonThatHangs());
        CtlProgram waiting({"estimate", kStick}, user);
        ASSERT_TRUE(estimateHangs());
        daemon.kill();

        const CtlResult result = waiting.finish();
        EXPECT_EQ(result.exitCode, 9);
        expectText(result.err,
                   like("*the update service ended while the command*; its log: the service's "
                        "standard error*"));
        expectText(result.err, like("*start it again*"));

        ASSERT_NO_FATAL_FAILURE(daemon.startAndWait());
        const CtlResult next = runCtl({"progress"}, user);
        EXPECT_EQ(next.exitCode, 0) << next.err;
        EXPECT_EQ(next.out, "No update is running\n");
        daemon.kill();
        writeFile("/tmp/quillon-test-stuck.log", "");
    }
}

TEST_F(LostService, IsMissedAlsoWhenAnotherOneHasTakenItsQueues)
{
    ASSERT_NO_FATAL_FAILURE(startDaemonThatHangs());
    CtlProgram waiting({"estimate", kStick});
    ASSERT_TRUE(estimateHangs());
    daemon.kill();
    ASSERT_NO_FATAL_FAILURE(daemon.startAndWait());

    EXPECT_EQ(waiting.finish().exitCode, 9);
}

}  // namespace
}  // namespace quillon::test
