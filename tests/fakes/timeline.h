/// What a test expects of the recording platform's timeline:
///
///     expectSteps({Log(ERROR, "Error: ckey  is nullptr")});
///     expectStep(Call(like("usleep(*")));
///
/// Link quillon-timeline. A failure is shown as support/texts.h says.
#pragma once

#include <cstddef>
#include <iosfwd>
#include <string>
#include <vector>

#include "fakes/recording-platform.h"
#include "support/texts.h"

namespace quillon::fakes {

using test::expectNoText;
using test::expectText;
using test::expectTexts;
using test::expectTextsInAnyOrder;
using test::like;
using test::TextRule;

/// What an entry of the timeline must be.
class Step
{
public:
    /// @param priority  of a log line; 0 for any
    /// @param function  of a log line; empty for any
    Step(Kind kind, int priority, std::string function, TextRule text);

    bool accepts(const Entry& entry) const;

private:
    friend std::ostream& operator<<(std::ostream& out, const Step& step);

    Kind kind_;
    int priority_;
    std::string function_;
    TextRule text_;
};

/// What is expected, in order.
using Steps = std::vector<Step>;

Steps operator+(Steps left, const Steps& right);

/// A log line, of any priority if none is given.
Step Log(int priority, TextRule text);
Step Log(TextRule text);

/// A log line out of that function.
Step LogFrom(std::string function, int priority, TextRule text);

/// A call of the platform or of the C library.
Step Call(TextRule text);

/// A call of a test plug-in or of the test verifier.
Step Plugin(TextRule text);

/// @name Expectations
/// Each adds a failure at the caller's line when it is not met; leave file and line alone.
/// Without `seen`, the whole timeline is looked at.
/// @{

/// These entries and no others.
void expectSteps(const Steps& expected, const char* file = __builtin_FILE(),
                 int line = __builtin_LINE());
void expectSteps(const std::vector<Entry>& seen, const Steps& expected,
                 const char* file = __builtin_FILE(), int line = __builtin_LINE());

/// These at the end.
void expectLastSteps(const Steps& expected, const char* file = __builtin_FILE(),
                     int line = __builtin_LINE());

/// This one somewhere, or nowhere.
void expectStep(const Step& expected, const char* file = __builtin_FILE(),
                int line = __builtin_LINE());
void expectStep(const std::vector<Entry>& seen, const Step& expected,
                const char* file = __builtin_FILE(), int line = __builtin_LINE());
void expectNoStep(const Step& refused, const char* file = __builtin_FILE(),
                  int line = __builtin_LINE());
void expectNoStep(const std::vector<Entry>& seen, const Step& refused,
                  const char* file = __builtin_FILE(), int line = __builtin_LINE());
/// @}

/// How many entries are such a step.
std::size_t countSteps(const Step& step);

/// The texts of one kind of entries.
std::vector<std::string> textsOf(Kind kind);
std::vector<std::string> logTexts();
std::vector<std::string> callTexts();
std::vector<std::string> pluginTexts();

}  // namespace quillon::fakes
