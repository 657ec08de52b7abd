#include "support/texts.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string_view>
#include <utility>

#include "support/compared-lines.h"

namespace quillon::test {
namespace {

bool isLike(std::string_view text, std::string_view pattern)
{
    const std::size_t star = pattern.find('*');
    if (star == std::string_view::npos) {
        return text == pattern;
    }
    if (text.substr(0, star) != pattern.substr(0, star)) {
        return false;
    }
    text.remove_prefix(star);
    pattern.remove_prefix(star + 1);
    const std::size_t next = pattern.find('*');
    if (next == std::string_view::npos) {
        return text.size() >= pattern.size() &&
               text.substr(text.size() - pattern.size()) == pattern;
    }
    const std::size_t at = text.find(pattern.substr(0, next));
    return at != std::string_view::npos && isLike(text.substr(at), pattern);
}

bool isAmong(const std::vector<std::string>& seen, const TextRule& rule)
{
    return std::any_of(seen.begin(), seen.end(),
                       [&rule](const std::string& text) { return rule.accepts(text); });
}

std::string listed(const std::vector<std::string>& texts)
{
    std::string list = texts.empty() ? "\n            nothing" : "";
    for (const std::string& text : texts) {
        list += "\n            " + shownText(text);
    }
    return list;
}

}  // namespace

TextRule::TextRule(const char* whole) : text_(whole)
{
}
TextRule::TextRule(std::string whole) : text_(std::move(whole))
{
}

bool TextRule::accepts(const std::string& text) const
{
    return isPattern_ ? isLike(text, text_) : text == text_;
}

std::string TextRule::description() const
{
    return (isPattern_ ? "like " : "") + shownText(text_);
}

TextRule like(std::string pattern)
{
    TextRule rule(std::move(pattern));
    rule.isPattern_ = true;
    return rule;
}

std::string shownText(const std::string& text)
{
    return testing::PrintToString(text);
}

void expectText(const std::string& seen, const TextRule& expected, const char* file, int line)
{
    if (!expected.accepts(seen)) {
        ADD_FAILURE_AT(file, line)
            << "  expected: " << expected.description() << "\n  seen:     " << shownText(seen);
    }
}

void expectNoText(const std::string& seen, const TextRule& refused, const char* file, int line)
{
    if (refused.accepts(seen)) {
        ADD_FAILURE_AT(file, line)
            << "  not to be: " << refused.description() << "\n  seen:      " << shownText(seen);
    }
}

void expectTextAmong(const std::vector<std::string>& seen, const TextRule& expected,
                     const char* file, int line)
{
    if (!isAmong(seen, expected)) {
        ADD_FAILURE_AT(file, line)
            << "  missing:  " << expected.description() << "\n  seen:" << listed(seen);
    }
}

void expectNoTextAmong(const std::vector<std::string>& seen, const TextRule& refused,
                       const char* file, int line)
{
    if (isAmong(seen, refused)) {
        ADD_FAILURE_AT(file, line)
            << "  not to be: " << refused.description() << "\n  seen:" << listed(seen);
    }
}

void expectTexts(const std::vector<std::string>& seen, const std::vector<TextRule>& expected,
                 const char* file, int line)
{
    expectSameLines(compared(seen, expected, shownText,
                             [](const TextRule& rule) { return rule.description(); }),
                    file, line);
}

// Brings what fits into the order of the rules; what fits no rule stays behind.
void expectTextsInAnyOrder(std::vector<std::string> seen, const std::vector<TextRule>& expected,
                           const char* file, int line)
{
    auto unused = seen.begin();
    for (const TextRule& rule : expected) {
        const auto found = std::find_if(
            unused, seen.end(), [&rule](const std::string& text) { return rule.accepts(text); });
        if (found == seen.end()) {
            break;
        }
        std::iter_swap(unused++, found);
    }
    expectTexts(seen, expected, file, line);
}

void expectSameLines(const std::vector<ComparedLine>& lines, const char* file, int line)
{
    const auto first = std::find_if(lines.begin(), lines.end(),
                                    [](const ComparedLine& each) { return !each.isSame; });
    if (first == lines.end()) {
        return;
    }
    std::ostringstream text;
    for (const ComparedLine& each : lines) {
        if (&each == &*first) {
            text << "From line " << first - lines.begin() + 1 << " on it differs:\n";
        }
        if (each.isSame) {
            text << "            " << each.seen << "\n";
        } else {
            text << "  expected: " << each.expected << "\n  seen:     " << each.seen << "\n";
        }
    }
    ADD_FAILURE_AT(file, line) << text.str();
}

}  // namespace quillon::test
