// The picture of expected beside actual times.

#include "tools/quillonctl/history-plot.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "support/texts.h"
#include "tools/quillonctl/history.h"

using namespace quillon;
using namespace quillon::test;

namespace {

PastUpdate update(const std::string& name, int expected, double seconds)
{
    PastUpdate one;
    one.at = 1795407000;
    one.module.name = name;
    one.module.offered = "2.0";
    one.module.expectedSeconds = expected;
    one.module.seconds = seconds;
    one.module.finding = ModuleFinding{};
    one.outcome = PastOutcome::kUpdated;
    return one;
}

PastUpdate cutOff(const std::string& name)
{
    PastUpdate one = update(name, 30, 0);
    one.module.finding.reset();
    one.outcome = PastOutcome::kCutOff;
    return one;
}

std::size_t count(const std::string& text, const std::string& part)
{
    std::size_t found = 0;
    for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size()) {
        ++found;
    }
    return found;
}

/// That every "<" begins a tag that is closed in order, and every "&" an entity: what the picture
/// needs of XML.
void expectWellFormed(const std::string& svg)
{
    std::vector<std::string> open;
    std::size_t at = svg.find("?>");
    ASSERT_NE(at, std::string::npos);
    while ((at = svg.find('<', at)) != std::string::npos) {
        const std::size_t end = svg.find('>', at);
        ASSERT_NE(end, std::string::npos);
        const std::string tag = svg.substr(at + 1, end - at - 1);
        EXPECT_EQ(tag.find('<'), std::string::npos) << tag;
        EXPECT_EQ(count(tag, "\"") % 2, 0U) << tag;
        if (tag.front() == '/') {
            ASSERT_FALSE(open.empty());
            EXPECT_EQ(open.back(), tag.substr(1));
            open.pop_back();
        } else if (tag.back() != '/') {
            open.push_back(tag.substr(0, tag.find(' ')));
        }
        at = end;
    }
    EXPECT_TRUE(open.empty());
    std::size_t entities = 0;
    for (const char* entity : {"&amp;", "&lt;", "&gt;", "&quot;", "&apos;"}) {
        entities += count(svg, entity);
    }
    EXPECT_EQ(entities, count(svg, "&"));
}

class HistoryPlot : public testing::Test
{
protected:
    HistoryPlot() { setenv("TZ", "UTC", 1); }
};

TEST_F(HistoryPlot, HasTwoBarsThatAreAsLongAsTheirTimes)
{
    const std::string svg = plotOf({update("lamp", 20, 40)});

    expectWellFormed(svg);
    expectText(svg, like("*<rect x=\"348.0\" * width=\"235.0\" *fill=\"#b8c0cc\"*>20 s</text>*"
                         "<rect x=\"348.0\" * width=\"470.0\" *fill=\"#2f6fb5\"*>40 s</text>*"));
    expectText(svg, like("*>lamp</text>*>2.0*2026-11-23 04:10</text>*"));
}

TEST_F(HistoryPlot, MakesNoMarkOfANameOrAVersion)
{
    PastUpdate hostile = update("<a b=\"c'&\">\xEF\xBF\xBF\x1b", 5, 5);
    hostile.module.offered = "<&>";
    const std::string svg = plotOf({hostile});

    expectWellFormed(svg);
    expectText(svg, like("*>&lt;a b=&quot;c&apos;&amp;&quot;&gt;?"
                         "?</text>*>&lt;&amp;&gt;  *"));
}

TEST_F(HistoryPlot, CutsLongNames)
{
    const std::string svg = plotOf({update(std::string(200, 'x'), 5, 5)});
    expectText(svg, like("*>" + std::string(22, 'x') + "...</text>*"));
}

TEST_F(HistoryPlot, SaysWhatWasNotUpdated)
{
    PastUpdate failed = update("lamp", 20, 40);
    failed.outcome = PastOutcome::kFailed;
    failed.module.finding->result = 5;
    expectText(plotOf({failed}), like("*fill=\"#c0392b\"/>\n*>40 s, failed</text>*"));
    expectText(plotOf({cutOff("lamp")}), like("*>30 s</text>*>cut off</text>*"));
}

TEST_F(HistoryPlot, ShowsTheTenLatestUpdatesOfAnOnlyModule)
{
    std::vector<PastUpdate> updates;
    for (int i = 1; i <= 12; ++i) {
        updates.push_back(update("lamp", 5, i + 100));
    }
    const std::string svg = plotOf(updates);
    EXPECT_EQ(count(svg, ">2.0 "), 10U);
    expectNoText(svg, like("*>102 s<*"));
    expectText(svg, like("*>103 s<*>112 s<*"));
}

TEST_F(HistoryPlot, ShowsTheLatestUpdateOfEachOfManyModules)
{
    std::vector<PastUpdate> updates;
    for (int run = 0; run < 3; ++run) {
        for (int i = 10; i < 60; ++i) {
            updates.push_back(update("module" + std::to_string(i), 5, run + 70));
        }
    }
    const std::string svg = plotOf(updates);

    expectWellFormed(svg);
    EXPECT_EQ(count(svg, ">module"), 50U);
    EXPECT_EQ(count(svg, ">72 s<"), 50U);
    EXPECT_EQ(count(svg, ">71 s<"), 0U);
}

TEST_F(HistoryPlot, StandsTimesOfAnySize)
{
    for (const double seconds : {0.0, 0.001, 1e12}) {
        expectWellFormed(plotOf({update("lamp", 0, seconds), update("horn", 2147483647, seconds)}));
    }
    expectWellFormed(plotOf({}));
    PastUpdate backwards = update("lamp", -5, -3);
    const std::string svg = plotOf({backwards});
    expectWellFormed(svg);
    expectNoText(svg, like("*width=\"-*"));
}

}  // namespace
