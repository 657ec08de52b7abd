#include "tools/shared/text-table.h"

#include <algorithm>
#include <cstddef>

#include "tools/shared/outside-text.h"

namespace quillon {
namespace {

constexpr std::size_t kWidestColumn = 40;

}  // namespace

std::string orDash(const std::string& text)
{
    return text.empty() ? "-" : text;
}

std::string joined(const std::string& text, const std::string& more)
{
    return text.empty() || more.empty() ? text + more : text + "; " + more;
}

std::vector<std::string> aligned(std::vector<TableRow> rows)
{
    std::vector<std::size_t> widths;
    for (TableRow& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t i = 0; i + 1 < row.size(); ++i) {
            row[i] = cut(printable(row[i]), kWidestColumn);
            widths[i] = std::max(widths[i], countCharacters(row[i]));
        }
    }
    std::vector<std::string> lines;
    for (const TableRow& row : rows) {
        std::string text;
        for (std::size_t i = 0; i + 1 < row.size(); ++i) {
            text += row[i] + std::string(widths[i] - countCharacters(row[i]) + 2, ' ');
        }
        lines.push_back(text + row.back());
    }
    return lines;
}

}  // namespace quillon
