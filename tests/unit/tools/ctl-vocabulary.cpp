#include "unit/tools/ctl-vocabulary.h"

#include <regex>

#include "support/files.h"
#include "unit/tools/ctl-program.h"

Words allMatches(const std::string& text, const char* expression)
{
    const std::regex regex(expression, std::regex::ECMAScript | std::regex::multiline);
    Words words;
    for (std::sregex_iterator it(text.begin(), text.end(), regex), end; it != end; ++it) {
        words.insert((*it)[1].str());
    }
    return words;
}

std::string between(const std::string& text, const std::string& first, const std::string& last)
{
    const std::size_t begin = text.find(first);
    if (begin == std::string::npos) {
        return {};
    }
    return text.substr(begin + first.size(),
                       text.find(last, begin + first.size()) - begin - first.size());
}

Words verbsOf(std::vector<std::string> verb)
{
    verb.emplace_back("--help");
    return allMatches(between(runCtl(verb).out, "\nSubcommands:\n", "\n\n") + "\n", "^  ([a-z]+) ");
}

std::string manualPage()
{
    return quillon::test::readAll(QUILLON_SOURCE_DIR "/docs/man/quillonctl.1");
}
