/// Behind the expectations of lists: one comparison and one way of showing it.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace quillon::test {

/// A line of a list that was expected or seen.
struct ComparedLine
{
    std::string expected;
    std::string seen;
    bool isSame = false;
};

/// Adds a failure with the comparison if a line differs.
void expectSameLines(const std::vector<ComparedLine>& lines, const char* file, int line);

/// Two lists, line by line. `rule.accepts(seen)` decides.
template <typename Seen, typename Rule, typename ShowSeen, typename ShowRule>
std::vector<ComparedLine> compared(const std::vector<Seen>& seen, const std::vector<Rule>& expected,
                                   ShowSeen showSeen, ShowRule showRule)
{
    std::vector<ComparedLine> lines(seen.size() > expected.size() ? seen.size() : expected.size());
    for (std::size_t i = 0; i < lines.size(); ++i) {
        lines[i].expected = i < expected.size() ? showRule(expected[i]) : "nothing";
        lines[i].seen = i < seen.size() ? showSeen(seen[i]) : "nothing";
        lines[i].isSame = i < seen.size() && i < expected.size() && expected[i].accepts(seen[i]);
    }
    return lines;
}

}  // namespace quillon::test
