/// Matchers for the recording platform's timeline:
///
///     EXPECT_THAT(timeline(), ElementsAre(Log(ERROR, "Error: ckey  is nullptr")));
///     EXPECT_THAT(timeline(), Contains(Call(HasSubstr("usleep("))));
///
/// Each takes the whole text or a matcher for it.
#ifndef QUILLON_TESTS_FAKES_TIMELINE_H
#define QUILLON_TESTS_FAKES_TIMELINE_H

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "fakes/recording-platform.h"

namespace quillon::fakes {

using EntryMatcher = ::testing::Matcher<Entry>;
using TextMatcher = ::testing::Matcher<std::string>;

/// A log line.
inline EntryMatcher Log(int priority, const TextMatcher& text)
{
    return ::testing::AllOf(::testing::Field("kind", &Entry::kind, Kind::Log),
                            ::testing::Field("priority", &Entry::priority, priority),
                            ::testing::Field("text", &Entry::text, text));
}

/// A log line out of that function.
inline EntryMatcher LogFrom(const std::string& function, int priority, const TextMatcher& text)
{
    return ::testing::AllOf(Log(priority, text),
                            ::testing::Field("function", &Entry::function, function));
}

/// A call of the platform or of the C library.
inline EntryMatcher Call(const TextMatcher& text)
{
    return ::testing::AllOf(::testing::Field("kind", &Entry::kind, Kind::Call),
                            ::testing::Field("text", &Entry::text, text));
}

/// A call of a test plug-in or of the test verifier.
inline EntryMatcher Plugin(const TextMatcher& text)
{
    return ::testing::AllOf(::testing::Field("kind", &Entry::kind, Kind::Plugin),
                            ::testing::Field("text", &Entry::text, text));
}

/// Matches a list that ends with these elements.
template <typename... Matchers>
auto EndsWith(const Matchers&... matchers)
{
    return ::testing::ResultOf(
        "the last elements",
        [](const std::vector<Entry>& entries) {
            const std::size_t count = sizeof...(Matchers);
            const std::size_t from = entries.size() > count ? entries.size() - count : 0;
            return std::vector<Entry>(entries.begin() + static_cast<std::ptrdiff_t>(from),
                                      entries.end());
        },
        ::testing::ElementsAre(matchers...));
}

/// The texts of one kind of entries.
inline std::vector<std::string> textsOf(Kind kind)
{
    std::vector<std::string> texts;
    for (const Entry& entry : timeline()) {
        if (entry.kind == kind) {
            texts.push_back(entry.text);
        }
    }
    return texts;
}

inline std::vector<std::string> logTexts()
{
    return textsOf(Kind::Log);
}
inline std::vector<std::string> callTexts()
{
    return textsOf(Kind::Call);
}
inline std::vector<std::string> pluginTexts()
{
    return textsOf(Kind::Plugin);
}

}  // namespace quillon::fakes

#endif
