// A control layer whose user may start no more threads.

#include "support/open-way.h"
#include "system/control-layer.h"
#include "system/privileged-helper.h"

namespace quillon::test {
namespace {

using UsedUpThreads = ControlLayer;

TEST_F(UsedUpThreads, EndEveryVerbWith9BeforeAnythingIsBegun)
{
    constexpr uid_t kUser = 1234;
    if (asUser(kUser, {kUser}, [] { return 0; }) != 0 || !openWayTo(QUILLONCTL_PROGRAM)) {
        GTEST_SKIP() << "here no other user can start the program";
    }
    installGuided("alpha", "");
    for (const std::string verb : {"list", "check", "update --all"}) {
        EXPECT_EQ(asUser(kUser, {kUser},
                         [&] {
                             // A sanitizer looks for leaks in a thread.
                             return runShell(
                                 "export ASAN_OPTIONS=$ASAN_OPTIONS:detect_leaks=0; "
                                 "ulimit -u 1; exec \"$CTL\" modules " +
                                 verb);
                         }),
                  9)
            << verb;
    }
    EXPECT_FALSE(wasAsked("alpha", "load("));
}

}  // namespace
}  // namespace quillon::test
