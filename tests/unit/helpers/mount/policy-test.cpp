#include "helpers/mount/policy.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <set>
#include <utility>

#include "helpers/shared/failure.h"
#include "unit/helpers/mount/hostile-requests.h"

using namespace quillon::privileged;
using namespace quillon::test;
using testing::Ge;
using testing::StrEq;

namespace {

constexpr const char* kGranted = "";
constexpr const char* kShape = "not the text of such a request";
constexpr const char* kDirectory =
    "the mount point is not a directory NAME in emps/ of the package directory";

/// @return the reason of a refusal
std::string judge(Kind kind, const std::string& text)
{
    try {
        switch (kind) {
            case Kind::kMount:
                judgeMount(text);
                break;
            case Kind::kNode:
                judgeNode(text);
                break;
            case Kind::kUnmount:
                judgeUnmount(text);
        }
        return kGranted;
    } catch (const quillon::Failure& failure) {
        EXPECT_EQ(failure.code(), EACCES);
        return failure.what();
    }
}

std::string mountOf(const std::string& image, const std::string& directory)
{
    return "-o ro,loop,nodev,nosuid /opt/usr/apps/appbinarymanager/" + image +
           " /opt/usr/apps/appbinarymanager/emps/" + directory;
}

}  // namespace

TEST(Policy, RefusesEachHostileRequestForItsReason)
{
    for (const HostileRequest& request : hostileRequests()) {
        EXPECT_EQ(judge(request.kind, request.text), request.expected)
            << "[" << request.text << "]";
    }
}

TEST(Policy, IsHeldAgainstTwoHundredDifferentHostileRequests)
{
    std::set<std::pair<Kind, std::string>> different;
    for (const HostileRequest& request : hostileRequests()) {
        EXPECT_TRUE(different.emplace(request.kind, request.text).second) << request.text;
        EXPECT_LT(request.text.size(), kTextSize);
        EXPECT_NE(request.expected, kGranted);
    }
    EXPECT_THAT(different.size(), Ge(200U));
}

TEST(Policy, TakesOnlyNamesFromAMountRequest)
{
    const MountOrder order = judgeMount(mountOf("tunerempA1.img", "TUNER2"));
    EXPECT_THAT(order.image, StrEq("tunerempA1.img"));
    EXPECT_THAT(order.directory, StrEq("TUNER2"));
}

TEST(Policy, TakesOnlyTheNameFromAnUnmountRequest)
{
    EXPECT_THAT(judgeUnmount("/opt/usr/apps/appbinarymanager/emps/x9"), StrEq("x9"));
}

TEST(Policy, GrantsExactlyTheLoopNodesFrom0To249)
{
    for (unsigned number = 0; number < 300; ++number) {
        const std::string digits = std::to_string(number);
        const std::string text = "-m 0660 -Z * /dev/loop" + digits + "  b 7 " + digits;
        if (number < 250) {
            EXPECT_EQ(judgeNode(text), number);
        } else {
            EXPECT_EQ(judge(Kind::kNode, text), "not the node of a loop device from 0 to 249");
        }
    }
}

TEST(Policy, JudgesTheShapeBeforeWhatIsInTheFields)
{
    EXPECT_EQ(judge(Kind::kMount, "-o anything /some/image /some/place"),
              "the mount options are not ro,loop,nodev,nosuid");
    EXPECT_EQ(judge(Kind::kMount, "-o anything /some/image  /some/place"), kShape);
    EXPECT_EQ(judge(Kind::kNode, "-m 0777 -Z label /some/node  b 1 2"), "the mode is not 0660");
    EXPECT_EQ(judge(Kind::kNode, "-m 0777 -Z label /some/node b 1 2"), kShape);
}

TEST(Policy, KnowsNoTextThatIsCutAnywhere)
{
    const std::string mount = "-o a b c";
    const std::string node = "-m a -Z b c  b d e";
    ASSERT_NE(judge(Kind::kMount, mount), kShape);
    ASSERT_NE(judge(Kind::kNode, node), kShape);
    for (std::size_t length = 0; length < mount.size(); ++length) {
        EXPECT_EQ(judge(Kind::kMount, mount.substr(0, length)), kShape) << length;
    }
    for (std::size_t length = 0; length < node.size(); ++length) {
        EXPECT_EQ(judge(Kind::kNode, node.substr(0, length)), kShape) << length;
    }
}

TEST(Policy, KnowsNoFieldWithABlankOrAByteOutsideOfAscii)
{
    for (const char c : {' ', '\t', '\n', '\0', '\x1f', '\x7f', '\x80', '\xff'}) {
        EXPECT_EQ(judge(Kind::kMount, std::string("-o a b c") + c), kShape) << static_cast<int>(c);
        EXPECT_EQ(judge(Kind::kMount, std::string("-o a b") + c + " c"), kShape)
            << static_cast<int>(c);
    }
}

TEST(Policy, SeesAByteOfZeroInsideOfAText)
{
    EXPECT_EQ(judge(Kind::kMount, mountOf("alpha.img", std::string("alpha\0beta", 10))), kShape);
    EXPECT_EQ(judge(Kind::kUnmount, goodUnmount() + '\0'), kDirectory);
    EXPECT_EQ(judge(Kind::kNode, goodNode() + '\0'), kShape);
}

TEST(Policy, RefusesEveryCharacterInANameButLettersAndDigits)
{
    for (int code = 0; code < 256; ++code) {
        const char c = static_cast<char>(code);
        const bool good =
            (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
        const std::string name = std::string("a") + c + "b";
        EXPECT_EQ(judge(Kind::kMount, mountOf(name + ".img", "a")) == kGranted, good) << code;
        EXPECT_EQ(judge(Kind::kMount, mountOf("a.img", name)) == kGranted, good) << code;
        EXPECT_EQ(judge(Kind::kUnmount, "/opt/usr/apps/appbinarymanager/emps/" + name) == kGranted,
                  good)
            << code;
    }
}
