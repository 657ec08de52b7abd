#include "tools/quillonctl/history-plot.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <iomanip>
#include <locale>
#include <map>
#include <sstream>

#include "base/replace-file.h"
#include "tools/quillonctl/history.h"
#include "tools/shared/outside-text.h"

namespace quillon {
namespace {

namespace fs = std::filesystem;

// Pixels.
constexpr int kWidth = 900;
constexpr int kNameColumn = 16;
constexpr int kRunColumn = 336;  // its texts end here
constexpr int kChart = 348;
constexpr int kChartWidth = 470;
constexpr int kHead = 92;
constexpr int kRowHeight = 26;
constexpr int kBarHeight = 9;
constexpr int kHalfGap = 5;  // between two modules
constexpr int kGap = 2 * kHalfGap;
constexpr int kFoot = 36;

constexpr std::size_t kLongestName = 22;
constexpr std::size_t kLongestVersion = 12;

constexpr const char* kExpected = "#b8c0cc";
constexpr const char* kActual = "#2f6fb5";
constexpr const char* kBad = "#c0392b";
constexpr const char* kText = "#1f2933";
constexpr const char* kFaint = "#5b6673";
constexpr const char* kLine = "#e3e7ec";

using Rows = std::vector<const PastUpdate*>;
using Modules = std::map<std::string, Rows>;

/// A text from outside as XML, cut to some characters.
std::string xml(const std::string& text, std::size_t characters)
{
    static const std::map<char, const char*> kEscapes = {
        {'&', "&amp;"}, {'<', "&lt;"}, {'>', "&gt;"}, {'"', "&quot;"}, {'\'', "&apos;"}};
    std::string escaped;
    for (const char c : cut(printable(text), characters)) {
        const auto escape = kEscapes.find(c);
        escaped += escape != kEscapes.end() ? escape->second : std::string(1, c);
    }
    // XML cannot hold these two.
    for (const char* refused : {"\xEF\xBF\xBE", "\xEF\xBF\xBF"}) {
        for (std::size_t at = 0; (at = escaped.find(refused, at)) != std::string::npos;) {
            escaped.replace(at, 3, "?");
        }
    }
    return escaped;
}

bool hasTime(const PastUpdate& update)
{
    return update.module.finding.has_value();
}

Modules shownOf(const std::vector<PastUpdate>& updates)
{
    constexpr std::size_t kRows = 60;
    constexpr std::size_t kMostOfAModule = 10;
    Modules modules;
    for (const PastUpdate& update : updates) {
        if (!update.module.name.empty()) {
            modules[update.module.name].push_back(&update);
        }
    }
    const std::size_t most = std::clamp<std::size_t>(
        kRows / std::max<std::size_t>(modules.size(), 1), 1, kMostOfAModule);
    for (auto& [name, rows] : modules) {
        rows.erase(rows.begin(),
                   rows.end() - static_cast<std::ptrdiff_t>(std::min(most, rows.size())));
    }
    return modules;
}

double longestOf(const Modules& modules)
{
    double longest = 1;
    for (const auto& [name, rows] : modules) {
        for (const PastUpdate* update : rows) {
            longest = std::max({longest, update->module.seconds,
                                static_cast<double>(update->module.expectedSeconds)});
        }
    }
    return longest;
}

/// The distance of the lines of the grid: 1, 2 or 5 times a power of ten, about five of them.
double stepFor(double longest)
{
    const double rough = longest / 5;
    const double power = std::pow(10, std::floor(std::log10(rough)));
    for (const double factor : {1.0, 2.0, 5.0}) {
        if (rough <= factor * power) {
            return factor * power;
        }
    }
    return 10 * power;
}

std::string secondsText(double seconds)
{
    std::ostringstream text;
    text.imbue(std::locale::classic());
    text << std::fixed << std::setprecision(seconds < 10 && seconds != std::floor(seconds) ? 1 : 0)
         << seconds << " s";
    return text.str();
}

/// Writes one picture.
class Picture
{
public:
    explicit Picture(const Modules& modules)
        : modules_(modules), step_(stepFor(longestOf(modules))), height_(kHead + kFoot)
    {
        out_.imbue(std::locale::classic());
        out_ << std::fixed << std::setprecision(1);
        scale_ = kChartWidth / (std::ceil(longestOf(modules) / step_) * step_);
        for (const auto& [name, rows] : modules) {
            height_ += static_cast<int>(rows.size()) * kRowHeight + kGap;
        }
    }

    std::string draw()
    {
        out_ << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
             << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << kWidth << "\" height=\""
             << height_ << "\" viewBox=\"0 0 " << kWidth << ' ' << height_
             << "\" font-family=\"sans-serif\" font-size=\"12\">\n"
             << "<title>Updates: expected and actual time</title>\n";
        rectangle(0, 0, kWidth, height_, "#ffffff");
        head();
        grid();
        int y = kHead;
        for (const auto& [name, rows] : modules_) {
            rectangle(kNameColumn, y - kHalfGap, kWidth - 2 * kNameColumn, 1, kLine);
            text(kNameColumn, y + 15, kText, "font-weight=\"bold\"", xml(name, kLongestName));
            for (const PastUpdate* update : rows) {
                row(y, *update);
                y += kRowHeight;
            }
            y += kGap;
        }
        out_ << "</svg>\n";
        return out_.str();
    }

private:
    void head()
    {
        text(kNameColumn, 28, kText, "font-size=\"17\" font-weight=\"bold\"",
             "Updates: expected and actual time");
        int x = kNameColumn;
        for (const auto& [colour, meaning] : {std::pair(kExpected, "expected"),
                                              {kActual, "actual"},
                                              {kBad, "actual, not updated"}}) {
            rectangle(x, 44, 12, 12, colour);
            text(x + 18, 54, kFaint, "", meaning);
            x += 90;
        }
    }

    /// Lines with their times above and below.
    void grid()
    {
        for (int i = 0; i * step_ * scale_ <= kChartWidth + 0.5; ++i) {
            const double x = kChart + i * step_ * scale_;
            rectangle(x, kHead - kGap, 1, height_ - kHead - kFoot + kGap, kLine);
            for (const int y : {kHead - kGap - 6, height_ - kFoot + 16}) {
                text(x, y, kFaint, "text-anchor=\"middle\" font-size=\"11\"",
                     secondsText(i * step_));
            }
        }
    }

    void row(int y, const PastUpdate& update)
    {
        const RecordedModule& module = update.module;
        const std::string version =
            module.offered.empty() ? "" : xml(module.offered, kLongestVersion) + "  \xC2\xB7  ";
        text(kRunColumn, y + 15, kFaint, "text-anchor=\"end\" font-size=\"11\"",
             version + localTime(update.at));
        if (module.expectedSeconds > 0) {
            bar(y + 2, module.expectedSeconds, kExpected, kFaint, "");
        }
        const bool isGood = update.outcome == PastOutcome::kUpdated;
        const std::string word =
            update.outcome == PastOutcome::kFailed ? "failed" : resultOf(update);
        if (hasTime(update)) {
            bar(y + 2 + kBarHeight + 1, module.seconds, isGood ? kActual : kBad,
                isGood ? kText : kBad, isGood ? "" : ", " + word);
        } else {
            text(kChart + 4, y + 2 + 2 * kBarHeight + 1, kBad, "font-size=\"10\"", word);
        }
    }

    /// A bar with its time, and more, behind it.
    void bar(int y, double seconds, const char* colour, const char* textColour,
             const std::string& more)
    {
        const double width = std::max(seconds * scale_, 1.0);
        rectangle(kChart, y, width, kBarHeight, colour);
        text(kChart + width + 4, y + kBarHeight - 1, textColour, "font-size=\"10\"",
             secondsText(seconds) + more);
    }

    void rectangle(double x, double y, double width, double height, const char* colour)
    {
        out_ << "<rect x=\"" << x << "\" y=\"" << y << "\" width=\"" << width << "\" height=\""
             << height << "\" fill=\"" << colour << "\"/>\n";
    }

    /// @param attributes  more of them
    /// @param words       XML
    void text(double x, double y, const char* colour, const char* attributes,
              const std::string& words)
    {
        out_ << "<text x=\"" << x << "\" y=\"" << y << "\" fill=\"" << colour << "\" " << attributes
             << ">" << words << "</text>\n";
    }

    const Modules& modules_;
    const double step_;  ///< seconds between two lines of the grid
    double scale_ = 1;   ///< pixels a second
    int height_;
    std::ostringstream out_;
};

}  // namespace

std::string plotOf(const std::vector<PastUpdate>& updates)
{
    return Picture(shownOf(updates)).draw();
}

void writePlot(const std::string& file, const std::vector<PastUpdate>& updates)
{
    const std::string failure = "cannot write " + file + ": ";
    std::error_code error;
    const fs::file_status there = fs::symlink_status(file, error);
    if (fs::exists(there) && !fs::is_regular_file(there)) {
        throw Failure{kExitUsage, failure + "there is something else than a file; name another"};
    }
    const std::string svg = plotOf(updates);
    const fs::path path(file);
    const fs::path directory = path.has_parent_path() ? path.parent_path() : ".";
    const mode_t mask = umask(0);
    umask(mask);
    if (!replaceFile(directory, path.filename(), SecretBytes(svg.begin(), svg.end()),
                     0666 & ~mask)) {
        throw Failure{kExitSystem, failure + std::strerror(errno)};
    }
}

}  // namespace quillon
