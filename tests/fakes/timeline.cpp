#include "fakes/timeline.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <sstream>
#include <utility>

#include "support/compared-lines.h"

namespace quillon::fakes {
namespace {

template <typename Element>
std::string shown(const Element& element)
{
    std::ostringstream text;
    text << element;
    return text.str();
}

std::string listed(const std::vector<Entry>& entries)
{
    std::string text = entries.empty() ? "  nothing\n" : "";
    for (const Entry& entry : entries) {
        text += "  " + shown(entry) + "\n";
    }
    return text;
}

std::size_t countIn(const std::vector<Entry>& seen, const Step& step)
{
    return static_cast<std::size_t>(std::count_if(
        seen.begin(), seen.end(), [&step](const Entry& entry) { return step.accepts(entry); }));
}

}  // namespace

Step::Step(Kind kind, int priority, std::string function, TextRule text)
    : kind_(kind), priority_(priority), function_(std::move(function)), text_(std::move(text))
{
}

bool Step::accepts(const Entry& entry) const
{
    return entry.kind == kind_ && (priority_ == 0 || entry.priority == priority_) &&
           (function_.empty() || entry.function == function_) && text_.accepts(entry.text);
}

std::ostream& operator<<(std::ostream& out, const Step& step)
{
    if (step.kind_ == Kind::Call) {
        return out << "call " << step.text_.description();
    }
    if (step.kind_ == Kind::Plugin) {
        return out << "plug-in " << step.text_.description();
    }
    out << "log " << (step.priority_ == 0 ? "*" : std::to_string(step.priority_)) << " "
        << step.text_.description();
    return step.function_.empty() ? out : out << " (" << step.function_ << ")";
}

Steps operator+(Steps left, const Steps& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

Step Log(int priority, TextRule text)
{
    return {Kind::Log, priority, "", std::move(text)};
}
Step Log(TextRule text)
{
    return {Kind::Log, 0, "", std::move(text)};
}
Step LogFrom(std::string function, int priority, TextRule text)
{
    return {Kind::Log, priority, std::move(function), std::move(text)};
}
Step Call(TextRule text)
{
    return {Kind::Call, 0, "", std::move(text)};
}
Step Plugin(TextRule text)
{
    return {Kind::Plugin, 0, "", std::move(text)};
}

void expectSteps(const Steps& expected, const char* file, int line)
{
    expectSteps(timeline(), expected, file, line);
}

void expectSteps(const std::vector<Entry>& seen, const Steps& expected, const char* file, int line)
{
    test::expectSameLines(test::compared(seen, expected, shown<Entry>, shown<Step>), file, line);
}

void expectLastSteps(const Steps& expected, const char* file, int line)
{
    std::vector<Entry> seen = timeline();
    const std::size_t before = seen.size() - std::min(seen.size(), expected.size());
    seen.erase(seen.begin(), seen.begin() + static_cast<std::ptrdiff_t>(before));
    expectSteps(seen, expected, file, line);
}

void expectStep(const Step& expected, const char* file, int line)
{
    expectStep(timeline(), expected, file, line);
}

void expectStep(const std::vector<Entry>& seen, const Step& expected, const char* file, int line)
{
    if (countIn(seen, expected) == 0) {
        ADD_FAILURE_AT(file, line) << "Missing: " << expected << "\nSeen:\n" << listed(seen);
    }
}

void expectNoStep(const Step& refused, const char* file, int line)
{
    expectNoStep(timeline(), refused, file, line);
}

void expectNoStep(const std::vector<Entry>& seen, const Step& refused, const char* file, int line)
{
    if (countIn(seen, refused) != 0) {
        ADD_FAILURE_AT(file, line) << "Not to be: " << refused << "\nSeen:\n" << listed(seen);
    }
}

std::size_t countSteps(const Step& step)
{
    return countIn(timeline(), step);
}

std::vector<std::string> textsOf(Kind kind)
{
    std::vector<std::string> texts;
    for (const Entry& entry : timeline()) {
        if (entry.kind == kind) {
            texts.push_back(entry.text);
        }
    }
    return texts;
}

std::vector<std::string> logTexts()
{
    return textsOf(Kind::Log);
}
std::vector<std::string> callTexts()
{
    return textsOf(Kind::Call);
}
std::vector<std::string> pluginTexts()
{
    return textsOf(Kind::Plugin);
}

}  // namespace quillon::fakes
