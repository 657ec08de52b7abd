// The update list of a check, where several users check packages: in /tmp only its owner and root
// can replace a file.

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "support/files.h"
#include "support/open-way.h"
#include "support/texts.h"
#include "system/control-layer.h"
#include "system/packaged-modules.h"

namespace quillon::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* kUpdateList = "/tmp/fwupdate-off-list.txt";
constexpr uid_t kService = 1234;
constexpr uid_t kMember = 1235;
constexpr uid_t kStranger = 1236;
constexpr gid_t kGroup = 2345;

class UpdateListOfModules : public PackagedModules
{
protected:
    void SetUp() override
    {
        PackagedModules::SetUp();
        if (IsSkipped()) {
            return;
        }
        if (asUser(kService, {kGroup}, [] { return 0; }) != 0 || !openWayTo(QUILLONCTL_PROGRAM)) {
            GTEST_SKIP() << "here no other user can start the program";
        }
        ASSERT_NO_FATAL_FAILURE(letIn(kGroup));
        ASSERT_EQ(::chown("/var/lib/quillon", kService, kGroup), 0);
        ASSERT_EQ(::chmod("/tmp", 01777), 0);
        addModule("alpha", "need=1\n");
    }

    static ModulesResult check() { return runModules({"check"}); }

    /// As a member of the group.
    static int checkAs(uid_t user, const std::function<void(const ModulesResult&)>& look)
    {
        return asUser(user, {kGroup}, [&] {
            const ModulesResult result = check();
            look(result);
            return HasFailure() ? 255 : result.exitCode;
        });
    }

    static uid_t owner()
    {
        struct stat status = {};
        return ::lstat(kUpdateList, &status) == 0 ? status.st_uid : static_cast<uid_t>(-1);
    }
};

TEST_F(UpdateListOfModules, OfRootsCheckIsTheServicesUsersWhoCanReplaceIt)
{
    EXPECT_EQ(check().exitCode, 0);
    EXPECT_EQ(owner(), kService);
    EXPECT_EQ(readAll(kUpdateList), "alpha alphaemp\n");

    set("alpha", "need=0\n");
    EXPECT_EQ(checkAs(kService, [](const ModulesResult& result) { expectText(result.err, ""); }),
              7);
    EXPECT_EQ(readAll(kUpdateList), "");
    EXPECT_EQ(owner(), kService);
    set("alpha", "need=1\n");
    EXPECT_EQ(check().exitCode, 0);
    EXPECT_EQ(readAll(kUpdateList), "alpha alphaemp\n");
}

TEST_F(UpdateListOfModules, OfAnotherUsersCheckIsTakenAway)
{
    EXPECT_EQ(checkAs(kMember, [](const ModulesResult& result) { expectText(result.err, ""); }), 0);

    EXPECT_FALSE(fs::exists(kUpdateList));
}

TEST_F(UpdateListOfModules, OfTheServicesUserFailsNoCheckOfAnotherOne)
{
    ASSERT_EQ(check().exitCode, 0);
    set("alpha", "need=0\n");

    EXPECT_EQ(checkAs(kMember, [](const ModulesResult& result) { expectText(result.err, ""); }), 7);
    EXPECT_EQ(readAll(kUpdateList), "alpha alphaemp\n");
}

TEST_F(UpdateListOfModules, ThatAnotherUserHasLeftIsToldAndFailsNoCheck)
{
    ASSERT_EQ(check().exitCode, 0);
    ASSERT_EQ(::chown(kUpdateList, kStranger, kStranger), 0);
    set("alpha", "need=0\n");

    EXPECT_EQ(checkAs(kMember,
                      [](const ModulesResult& result) {
                          expectText(result.err,
                                     "quillonctl: warning: the update list " +
                                         std::string(kUpdateList) +
                                         " belongs to user 1236 and tells what that user has "
                                         "found: that user or root can remove it\n");
                      }),
              7);
    EXPECT_EQ(readAll(kUpdateList), "alpha alphaemp\n");
}

}  // namespace
}  // namespace quillon::test
