// What tests expect of texts and of the timeline: what passes, and how a failure is shown.

#include "fakes/timeline.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include "fakes/recorder.h"

namespace quillon::fakes {
namespace {

/// The one failure that the work adds; empty if it adds none.
struct Failure
{
    std::string text;
    int line = 0;
};

template <typename Work>
Failure failureOf(Work work)
{
    testing::TestPartResultArray results;
    {
        const testing::ScopedFakeTestPartResultReporter reporter(
            testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &results);
        work();
    }
    if (results.size() == 0) {
        return {};
    }
    EXPECT_EQ(results.size(), 1);
    const testing::TestPartResult& result = results.GetTestPartResult(0);
    EXPECT_STREQ(result.file_name(), __FILE__);
    return {result.message(), result.line_number()};
}

void say(int priority, const std::string& text)
{
    Entry entry;
    entry.kind = Kind::Log;
    entry.priority = priority;
    entry.function = "speaker";
    entry.text = text;
    record(entry);
    entry.kind = Kind::Trace;
    record(entry);
}

TEST(ExpectedText, IsTheWholeText)
{
    EXPECT_EQ(failureOf([] { expectText("text", "text"); }).text, "");
    EXPECT_NE(failureOf([] { expectText("text", "tex"); }).text, "");
    EXPECT_NE(failureOf([] { expectText("text", "text*"); }).text, "");
}

TEST(ExpectedText, IsLikeAPatternWhoseStarsAreAnyText)
{
    for (const char* pattern : {"a-b-c", "*", "a*", "*c", "*-b-*", "a*b*c", "a-b-c*", "**c"}) {
        EXPECT_TRUE(like(pattern).accepts("a-b-c")) << pattern;
    }
    for (const char* pattern : {"", "a", "b*", "*b", "a*c*b", "a-b-c*c", "a-b*b-c", "?-b-c"}) {
        EXPECT_FALSE(like(pattern).accepts("a-b-c")) << pattern;
    }
    EXPECT_TRUE(like("a*ab").accepts("aabaab")) << "the first place that fits is not the last";
}

TEST(ExpectedText, IsShownBesideTheOneThatWasSeen)
{
    EXPECT_EQ(failureOf([] { expectText("seen\n", like("expected*")); }).text,
              "Failed\n  expected: like \"expected*\"\n  seen:     \"seen\\n\"");
    EXPECT_EQ(failureOf([] { expectNoText("seen", like("s*")); }).text,
              "Failed\n  not to be: like \"s*\"\n  seen:      \"seen\"");
    EXPECT_EQ(failureOf([] { expectNoText("seen", "see"); }).text, "");
}

TEST(ExpectedTexts, AreTheWholeList)
{
    EXPECT_EQ(failureOf([] { expectTexts({}, {}); }).text, "");
    EXPECT_EQ(failureOf([] { expectTexts({"a", "b"}, {"a", like("b*")}); }).text, "");
    EXPECT_NE(failureOf([] { expectTexts({"a", "b"}, {"a"}); }).text, "");
    EXPECT_NE(failureOf([] { expectTexts({"a", "b"}, {"b", "a"}); }).text, "");
    EXPECT_NE(failureOf([] { expectTexts({}, {"a"}); }).text, "");
}

TEST(ExpectedTexts, MayBeInAnyOrder)
{
    EXPECT_EQ(failureOf([] { expectTextsInAnyOrder({"b", "a", "b"}, {"a", "b", "b"}); }).text, "");
    EXPECT_NE(failureOf([] { expectTextsInAnyOrder({"b", "a"}, {"a", "b", "b"}); }).text, "");
    EXPECT_NE(failureOf([] { expectTextsInAnyOrder({"b", "a", "a"}, {"a", "b"}); }).text, "");
    EXPECT_NE(failureOf([] { expectTextsInAnyOrder({"b", "a", "a"}, {"a", "b", "b"}); }).text, "");
}

TEST(ExpectedTexts, OneMayBeAskedForOrRefusedAmongThem)
{
    EXPECT_EQ(failureOf([] { test::expectTextAmong({"a", "b"}, like("b*")); }).text, "");
    EXPECT_EQ(failureOf([] { test::expectNoTextAmong({"a", "b"}, "c"); }).text, "");
    EXPECT_EQ(failureOf([] {
                  test::expectTextAmong({"a", "b"}, "c");
              }).text,
              "Failed\n  missing:  \"c\"\n  seen:\n            \"a\"\n            \"b\"");
    EXPECT_EQ(failureOf([] { test::expectNoTextAmong({"a"}, like("*")); }).text,
              "Failed\n  not to be: like \"*\"\n  seen:\n            \"a\"");
    EXPECT_EQ(failureOf([] { test::expectTextAmong({}, like("*")); }).text,
              "Failed\n  missing:  like \"*\"\n  seen:\n            nothing");
}

TEST(ExpectedSteps, AreTheWholeTimeline)
{
    say(ERROR, "line");
    recordPlugin("alpha.doUpdate()");
    note("call() = 0");

    const Steps all = {LogFrom("speaker", ERROR, "line"), Plugin(like("alpha.*")),
                       Call(like("c*"))};
    EXPECT_EQ(failureOf([&] { expectSteps(all); }).text, "");
    EXPECT_NE(failureOf([] { expectSteps({}); }).text, "");
    EXPECT_NE(failureOf([&] { expectSteps(all + Steps{Call("more")}); }).text, "");
    EXPECT_NE(failureOf([&] { expectSteps({all[1], all[2]}); }).text, "");
    EXPECT_EQ(failureOf([&] { expectLastSteps({all[1], all[2]}); }).text, "");
    EXPECT_NE(failureOf([&] { expectLastSteps({all[0], all[1]}); }).text, "");
    EXPECT_NE(failureOf([&] { expectLastSteps(Steps{all[0]} + all); }).text, "");
}

TEST(ExpectedSteps, DifferInKindPriorityFunctionAndText)
{
    say(ERROR, "line");

    EXPECT_EQ(countSteps(Log("line")), 1U);
    EXPECT_EQ(countSteps(Log(ERROR, "line")), 1U);
    EXPECT_EQ(countSteps(Log(INFO, "line")), 0U);
    EXPECT_EQ(countSteps(LogFrom("listener", ERROR, "line")), 0U);
    EXPECT_EQ(countSteps(Log("lines")), 0U);
    EXPECT_EQ(countSteps(Call("line")), 0U);
    EXPECT_EQ(countSteps(Plugin("line")), 0U);
}

TEST(ExpectedSteps, AreComparedAtTheLineOfTheCallerFromTheFirstDifferenceOn)
{
    recordPlugin("first");
    say(ERROR, "second");
    note("third");

    const int line = __LINE__ + 2;
    const Failure failure = failureOf([] {
        expectSteps({Plugin("first"), LogFrom("speaker", INFO, like("sec*")), Call("third"),
                     Call("fourth")});
    });

    EXPECT_EQ(failure.line, line);
    EXPECT_EQ(failure.text,
              "Failed\n"
              "            plug-in first\n"
              "From line 2 on it differs:\n"
              "  expected: log 4 like \"sec*\" (speaker)\n"
              "  seen:     log 6 \"second\" (:0, speaker)\n"
              "            call third\n"
              "  expected: call \"fourth\"\n"
              "  seen:     nothing\n");
}

TEST(ExpectedSteps, OneMayBeAskedForOrRefusedAnywhere)
{
    recordPlugin("first");
    recordPlugin("second");

    EXPECT_EQ(failureOf([] { expectStep(Plugin("second")); }).text, "");
    EXPECT_EQ(failureOf([] { expectNoStep(Plugin("third")); }).text, "");
    EXPECT_EQ(failureOf([] { expectStep(Plugin("third")); }).text,
              "Failed\nMissing: plug-in \"third\"\nSeen:\n  plug-in first\n  plug-in second\n");
    EXPECT_EQ(failureOf([] { expectNoStep(Plugin("second")); }).text,
              "Failed\nNot to be: plug-in \"second\"\nSeen:\n  plug-in first\n  plug-in second\n");
}

}  // namespace
}  // namespace quillon::fakes
