#include "tools/shared/usage-mistake.h"

#include <algorithm>
#include <cstddef>
#include <numeric>
#include <utility>
#include <vector>

#include "tools/shared/outside-text.h"

namespace quillon {
namespace {

/// With more wrong letters, another word was probably meant.
constexpr std::size_t kMostWrong = 2;
constexpr std::size_t kLongestWord = 60;

/// @return how many letters must be added, dropped or replaced (Levenshtein's distance)
std::size_t distance(const std::string& one, const std::string& other)
{
    std::vector<std::size_t> row(other.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < one.size(); ++i) {
        std::size_t diagonal = std::exchange(row[0], i + 1);
        for (std::size_t j = 0; j < other.size(); ++j) {
            const std::size_t replaced = diagonal + (one[i] == other[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, row[j] + 1, diagonal + 1});
        }
    }
    return row.back();
}

std::vector<std::string> optionsOf(const CLI::App& app)
{
    std::vector<std::string> names;
    for (const CLI::Option* option : app.get_options()) {
        for (const std::string& name : option->get_lnames()) {
            names.push_back("--" + name);
        }
    }
    return names;
}

std::vector<std::string> verbsOf(const CLI::App& app)
{
    std::vector<std::string> names;
    for (const CLI::App* verb : app.get_subcommands(nullptr)) {
        names.push_back(verb->get_name());
    }
    return names;
}

/// @return a question that follows the mistake; empty when none of the words is near
std::string suggestion(const std::string& typed, const std::vector<std::string>& words)
{
    std::size_t least = kMostWrong + 1;
    std::string nearest;
    for (const std::string& word : words) {
        if (const std::size_t wrong = distance(typed, word); wrong < least) {
            least = wrong;
            nearest = word;
        }
    }
    return nearest.empty() ? "" : "; did you mean \"" + nearest + "\"?";
}

}  // namespace

std::string describeMistake(const CLI::App& app, const CLI::ParseError& error)
{
    const std::string help = " (see " + app.get_name() + " --help)";
    const CLI::App* verb = &app;
    std::vector<std::string> options = optionsOf(app);
    while (!verb->get_subcommands().empty()) {
        verb = verb->get_subcommands().front();
        const std::vector<std::string> more = optionsOf(*verb);
        options.insert(options.end(), more.begin(), more.end());
    }
    const bool lacksVerb = verb->get_require_subcommand_min() > 0;
    const std::vector<std::string> unknown = app.remaining(true);
    if (unknown.empty()) {
        return (lacksVerb ? "a verb is required" : error.what()) + help;
    }
    const std::string typed = cut(printable(unknown.front()), kLongestWord);
    if (typed.substr(0, 1) == "-") {
        return "unknown option \"" + typed + '"' + suggestion(typed, options) + help;
    }
    if (!lacksVerb) {
        return "unexpected argument \"" + typed + '"' + help;
    }
    return "unknown verb \"" + typed + '"' + suggestion(typed, verbsOf(*verb)) + help;
}

}  // namespace quillon
