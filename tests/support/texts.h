/// What a test expects of texts:
///
///     expectText(result.error, like("quillonctl: *: Permission denied\n"));
///     expectTexts(captured.lines(), {"first", like("second*")});
///
/// Plain functions, compiled once: a matcher that is a template costs seconds in each file of
/// tests. A failure stands at the line of the caller. Lists are shown from the first line on, and
/// from the first that differs on what was expected stands above what was seen.
///
/// Link quillon-test-tools.
#pragma once

#include <string>
#include <vector>

namespace quillon::test {

/// What a text must be: that text, or one like() it.
class TextRule
{
public:
    TextRule(const char* whole);
    TextRule(std::string whole);

    bool accepts(const std::string& text) const;
    /// The text in double quotes, behind "like" if it is a pattern.
    std::string description() const;

private:
    friend TextRule like(std::string pattern);

    std::string text_;
    bool isPattern_ = false;
};

/// A text in which each `*` stands for any text, also none.
TextRule like(std::string pattern);

/// The text in double quotes, with what cannot be seen written out.
std::string shownText(const std::string& text);

/// @name Expectations
/// Each adds a failure at the caller's line when it is not met; leave file and line alone.
/// @{
void expectText(const std::string& seen, const TextRule& expected,
                const char* file = __builtin_FILE(), int line = __builtin_LINE());
/// The text is no such one.
void expectNoText(const std::string& seen, const TextRule& refused,
                  const char* file = __builtin_FILE(), int line = __builtin_LINE());
/// One of the texts is such a one, or none is.
void expectTextAmong(const std::vector<std::string>& seen, const TextRule& expected,
                     const char* file = __builtin_FILE(), int line = __builtin_LINE());
void expectNoTextAmong(const std::vector<std::string>& seen, const TextRule& refused,
                       const char* file = __builtin_FILE(), int line = __builtin_LINE());
/// These texts and no others.
void expectTexts(const std::vector<std::string>& seen, const std::vector<TextRule>& expected,
                 const char* file = __builtin_FILE(), int line = __builtin_LINE());
void expectTextsInAnyOrder(std::vector<std::string> seen, const std::vector<TextRule>& expected,
                           const char* file = __builtin_FILE(), int line = __builtin_LINE());
/// @}

}  // namespace quillon::test
