#include "helpers/mount/policy.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <utility>

#include "unit/helpers/mount/hostile-requests.h"

using namespace quillon::privileged;
using namespace quillon::test;
using testing::Ge;
using testing::StrEq;

namespace {

Refusal judge(Kind kind, const std::string& text)
{
    MountOrder mount;
    NodeOrder node;
    UnmountOrder unmount;
    switch (kind) {
        case Kind::kMount:
            return judgeMount(text, mount);
        case Kind::kNode:
            return judgeNode(text, node);
        case Kind::kUnmount:
            return judgeUnmount(text, unmount);
    }
    return Refusal::kShape;
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
            << "[" << request.text << "]: expected " << describe(request.expected) << ", got "
            << describe(judge(request.kind, request.text));
    }
}

TEST(Policy, IsHeldAgainstTwoHundredDifferentHostileRequests)
{
    std::set<std::pair<Kind, std::string>> different;
    for (const HostileRequest& request : hostileRequests()) {
        EXPECT_TRUE(different.emplace(request.kind, request.text).second) << request.text;
        EXPECT_LT(request.text.size(), kTextSize);
        EXPECT_NE(request.expected, Refusal::kNone);
    }
    EXPECT_THAT(different.size(), Ge(200U));
}

TEST(Policy, TakesOnlyNamesFromAMountRequest)
{
    MountOrder order;
    ASSERT_EQ(judgeMount(mountOf("tunerempA1.img", "TUNER2"), order), Refusal::kNone);
    EXPECT_THAT(order.image, StrEq("tunerempA1.img"));
    EXPECT_THAT(order.directory, StrEq("TUNER2"));
}

TEST(Policy, TakesOnlyTheNameFromAnUnmountRequest)
{
    UnmountOrder order;
    ASSERT_EQ(judgeUnmount("/opt/usr/apps/appbinarymanager/emps/x9", order), Refusal::kNone);
    EXPECT_THAT(order.directory, StrEq("x9"));
}

TEST(Policy, GrantsExactlyTheLoopNodesFrom0To249)
{
    for (unsigned number = 0; number < 300; ++number) {
        const std::string digits = std::to_string(number);
        NodeOrder order;
        const Refusal refusal =
            judgeNode("-m 0660 -Z * /dev/loop" + digits + "  b 7 " + digits, order);
        EXPECT_EQ(refusal, number < 250 ? Refusal::kNone : Refusal::kNode) << number;
        EXPECT_EQ(order.number, number < 250 ? number : 0U);
    }
}

TEST(Policy, LeavesTheOrderAsItWasWhenItRefuses)
{
    MountOrder order{"before.img", "before"};
    ASSERT_EQ(judgeMount(mountOf("alpha.img", "alpha/"), order), Refusal::kDirectory);
    EXPECT_THAT(order.image, StrEq("before.img"));
    EXPECT_THAT(order.directory, StrEq("before"));
}

TEST(Policy, SeesAByteOfZeroInsideOfAText)
{
    EXPECT_EQ(judge(Kind::kMount, mountOf("alpha.img", std::string("alpha\0beta", 10))),
              Refusal::kShape);
    EXPECT_EQ(judge(Kind::kUnmount, goodUnmount() + '\0'), Refusal::kDirectory);
    EXPECT_EQ(judge(Kind::kNode, goodNode() + '\0'), Refusal::kShape);
}

TEST(Policy, RefusesEveryCharacterInANameButLettersAndDigits)
{
    for (int code = 0; code < 256; ++code) {
        const char c = static_cast<char>(code);
        const bool good =
            (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
        const std::string name = std::string("a") + c + "b";
        EXPECT_EQ(judge(Kind::kMount, mountOf(name + ".img", "a")) == Refusal::kNone, good) << code;
        EXPECT_EQ(judge(Kind::kMount, mountOf("a.img", name)) == Refusal::kNone, good) << code;
        EXPECT_EQ(
            judge(Kind::kUnmount, "/opt/usr/apps/appbinarymanager/emps/" + name) == Refusal::kNone,
            good)
            << code;
    }
}

TEST(Policy, HasAReasonInWordsForEveryRefusal)
{
    std::set<std::string> reasons;
    for (const Refusal refusal :
         {Refusal::kNone, Refusal::kShape, Refusal::kOptions, Refusal::kImage, Refusal::kDirectory,
          Refusal::kMode, Refusal::kLabel, Refusal::kNode}) {
        EXPECT_THAT(describe(refusal), testing::Not(StrEq("")));
        EXPECT_TRUE(reasons.insert(describe(refusal)).second);
    }
}
