#include "helpers/shared/caller-options.h"

#include <fcntl.h>
#include <getopt.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "support/texts.h"
#include "unit/platform/captured-stderr.h"

namespace quillon {
namespace {

using quillon::test::expectText;
using quillon::test::like;

class CallerOptions : public testing::Test
{
protected:
    /// Reads "helper WORDS".
    std::optional<int> parse(std::vector<std::string> words)
    {
        words.insert(words.begin(), "helper");
        std::vector<char*> arguments;
        for (std::string& word : words) {
            arguments.push_back(word.data());
        }
        arguments.push_back(nullptr);
        optind = 0;  // begins anew
        return parseCallerOptions(static_cast<int>(words.size()), arguments.data(), "helper",
                                  "all of the help\n", callers);
    }

    Callers callers;
    CapturedStderr captured;
};

TEST_F(CallerOptions, NameNobodyUnlessTheySay)
{
    EXPECT_EQ(parse({}), std::nullopt);

    EXPECT_FALSE(callers.user);
    EXPECT_FALSE(callers.group);
}

TEST_F(CallerOptions, FailWhereTheHelpOrTheVersionCannotBeWritten)
{
    for (const char* option : {"--help", "--version"}) {
        std::cout.flush();
        const int before = dup(STDOUT_FILENO);
        const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
        dup2(full, STDOUT_FILENO);

        const std::optional<int> status = parse({option});
        std::cout.flush();
        std::cout.clear();

        dup2(before, STDOUT_FILENO);
        close(before);
        close(full);
        EXPECT_EQ(status, 1) << option;
    }
}

TEST_F(CallerOptions, NameAUserAndAGroup)
{
    EXPECT_EQ(parse({"--user", "root", "--group=root"}), std::nullopt);

    EXPECT_EQ(callers.user, 0U);
    EXPECT_EQ(callers.group, 0U);
}

TEST_F(CallerOptions, TakeNumbers)
{
    EXPECT_EQ(parse({"-u", "4711", "-g", "4712"}), std::nullopt);

    EXPECT_EQ(callers.user, 4711U);
    EXPECT_EQ(callers.group, 4712U);
}

TEST_F(CallerOptions, RefuseWhoIsUnknown)
{
    for (const char* name :
         {"no-such-name", "", "-1", "4294967295", "99999999999999999999", "1x"}) {
        captured.clear();
        EXPECT_EQ(parse({"-u", name}), 2) << name;
        EXPECT_EQ(captured.text(), std::string("helper: no such user: ") + name + "\n");
        captured.clear();
        EXPECT_EQ(parse({"-g", name}), 2) << name;
        EXPECT_EQ(captured.text(), std::string("helper: no such group: ") + name + "\n");
    }
}

TEST_F(CallerOptions, RefuseWhatIsNone)
{
    for (const std::vector<std::string>& words :
         {std::vector<std::string>{"--what"}, {"-u"}, {"more"}}) {
        captured.clear();
        EXPECT_EQ(parse(words), 2) << words[0];
        expectText(captured.text(), like("*helper: *"));
        expectText(captured.text(), like("*see --help*"));
    }
}

TEST_F(CallerOptions, TellHelpAndVersionOnStandardOutput)
{
    testing::internal::CaptureStdout();
    EXPECT_EQ(parse({"--help"}), 0);
    EXPECT_EQ(parse({"--version"}), 0);
    expectText(testing::internal::GetCapturedStdout(), like("all of the help\nhelper 0.*"));
    EXPECT_EQ(captured.text(), "");
}

}  // namespace
}  // namespace quillon
