#include "helpers/mount/parse-request.h"

#include <gtest/gtest.h>

#include <string>

using namespace quillon::privileged;

TEST(ParseRequest, TakesAMountToPiecesWithoutJudgingThem)
{
    const auto fields = parseMount("-o anything /some/image /some/place");
    ASSERT_TRUE(fields);
    EXPECT_EQ(fields->options, "anything");
    EXPECT_EQ(fields->image, "/some/image");
    EXPECT_EQ(fields->directory, "/some/place");
}

TEST(ParseRequest, TakesANodeToPiecesWithItsTwoBlanks)
{
    const auto fields = parseNode("-m 0777 -Z label /some/node  b 1 2");
    ASSERT_TRUE(fields);
    EXPECT_EQ(fields->mode, "0777");
    EXPECT_EQ(fields->label, "label");
    EXPECT_EQ(fields->node, "/some/node");
    EXPECT_EQ(fields->major, "1");
    EXPECT_EQ(fields->minor, "2");
}

TEST(ParseRequest, KnowsNoTextThatIsCutAnywhere)
{
    const std::string_view mount = "-o a b c";
    const std::string_view node = "-m a -Z b c  b d e";
    ASSERT_TRUE(parseMount(mount));
    ASSERT_TRUE(parseNode(node));
    for (std::size_t length = 0; length < mount.size(); ++length) {
        EXPECT_FALSE(parseMount(mount.substr(0, length))) << length;
    }
    for (std::size_t length = 0; length < node.size(); ++length) {
        EXPECT_FALSE(parseNode(node.substr(0, length))) << length;
    }
}

TEST(ParseRequest, KnowsNoFieldWithABlankOrAByteOutsideOfAscii)
{
    for (const char c : {' ', '\t', '\n', '\0', '\x1f', '\x7f', '\x80', '\xff'}) {
        EXPECT_FALSE(parseMount(std::string("-o a b c") + c)) << static_cast<int>(c);
        EXPECT_FALSE(parseMount(std::string("-o a b") + c + " c")) << static_cast<int>(c);
    }
}
