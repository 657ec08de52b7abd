#include "process/figures-in-document.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "process/text-file.h"

namespace quillon::bench {
namespace {

using ::testing::HasSubstr;

constexpr Markers kMarkers = {"<!-- here -->", "<!-- to here -->"};

std::string document(const std::string& between)
{
    return std::string("before\n") + kMarkers.begin + "\n" + between + kMarkers.end + "\nafter\n";
}

TEST(FiguresInDocument, ReplaceWhatItHasBetweenItsMarkers)
{
    EXPECT_EQ(withFigures(document("old\nlines\n"), kMarkers, "new\n"), document("\nnew\n\n"));
    EXPECT_EQ(withFigures(document(""), kMarkers, "new\n"), document("\nnew\n\n"));
}

TEST(FiguresInDocument, PutInTwiceAreThereOnce)
{
    const std::string once = withFigures(document("old\n"), kMarkers, "new\n");

    EXPECT_EQ(withFigures(once, kMarkers, "new\n"), once);
}

TEST(FiguresInDocument, ADocumentWithoutMarkersIsRefused)
{
    const std::string begin = std::string(kMarkers.begin) + "\n";
    const std::string end = std::string(kMarkers.end) + "\n";

    EXPECT_THROW(withFigures("before\nafter\n", kMarkers, "new\n"), std::runtime_error);
    EXPECT_THROW(withFigures(begin, kMarkers, "new\n"), std::runtime_error);
    EXPECT_THROW(withFigures(end + begin, kMarkers, "new\n"), std::runtime_error);
}

TEST(FiguresInDocument, OurDocumentsTakeThem)
{
    EXPECT_THAT(withFigures(readFile(DOCUMENTS "/footprint.md"), kFootprintMarkers, "new\n"),
                HasSubstr("\n\nnew\n\n"));
    EXPECT_THAT(withFigures(readFile(DOCUMENTS "/performance.md"), kPerformanceMarkers, "new\n"),
                HasSubstr("\n\nnew\n\n"));
}

}  // namespace
}  // namespace quillon::bench
