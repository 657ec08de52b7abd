#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include <sstream>
#include <stdexcept>
#include <string>

#include "footprint/report.h"

namespace quillon::bench {
namespace {

using ::testing::HasSubstr;

constexpr const char* kFigures = R"({
  "machine": "A processor, 2 cores",
  "settle": 11000,
  "size": [{"file": "quillon-service", "bytes": 200704}, {"file": "do-nothing", "bytes": 14336}],
  "memory": [
    {"modules": 10, "process": "service",
     "resident":     {"median": 12288, "least": 11264, "p95": 13312, "runs": 5},
     "proportional": {"median": 9216, "least": 9216, "p95": 9216, "runs": 5},
     "unshared":     {"median": 8192, "least": 8192, "p95": 8192, "runs": 5},
     "anonymous":    {"median": 1024, "least": 1024, "p95": 1024, "runs": 5}}],
  "start": [
    {"modules": 1, "process": "service",
     "time": {"median": 6.0, "least": 5.5, "p95": 7.25, "runs": 200}},
    {"modules": 1, "process": "floor",
     "time": {"median": 3.0, "least": 2.5, "p95": 3.5, "runs": 200}},
    {"modules": 1, "process": "modules-floor",
     "time": {"median": 4.0, "least": 3.5, "p95": 4.5, "runs": 200}}]
})";

Json::Value figures()
{
    Json::Value value;
    std::istringstream(kFigures) >> value;
    return value;
}

TEST(Figures, TellTheMachineAndTheNumberOfRuns)
{
    const std::string text = toMarkdown(figures());

    EXPECT_THAT(text, HasSubstr("Measured on: A processor, 2 cores.\n"));
    EXPECT_THAT(text, HasSubstr("of 5 processes each"));
    EXPECT_THAT(text, HasSubstr("of 200 starts each"));
    EXPECT_THAT(text, HasSubstr("idle with 10 modules, 11.0 s after READY"));
}

TEST(Figures, PutSizesIntoATable)
{
    EXPECT_THAT(toMarkdown(figures()), HasSubstr("| file | KiB | bytes |\n"
                                                 "|---|---:|---:|\n"
                                                 "| `quillon-service` | 196.0 | 200704 |\n"
                                                 "| floor | 14.0 | 14336 |\n"));
}

TEST(Figures, PutMemoryIntoATableInMebibytes)
{
    EXPECT_THAT(toMarkdown(figures()),
                HasSubstr("| `quillon-service` | 12.00 (11.00–13.00) | 9.00 (9.00–9.00) | "
                          "8.00 (8.00–8.00) | 1.00 (1.00–1.00) |\n"));
}

TEST(Figures, HoldTheStartAgainstTheFloorWithTheModulesOpened)
{
    EXPECT_THAT(toMarkdown(figures()),
                HasSubstr("| 1 | 6.00 (5.50–7.25) | 3.00 (2.50–3.50) | 4.00 (3.50–4.50) | "
                          "2.00 | 1.50 |\n"));
}

TEST(Figures, WithoutAFloorThereIsNoTable)
{
    Json::Value incomplete = figures();
    incomplete["start"].resize(1);

    EXPECT_THROW(toMarkdown(incomplete), std::runtime_error);
}

}  // namespace
}  // namespace quillon::bench
