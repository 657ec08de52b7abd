// The manual page and the completion know what the program knows.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>

#include "unit/tools/ctl-program.h"

using testing::ContainerEq;
using testing::Contains;
using testing::ElementsAre;
using testing::UnorderedElementsAre;

namespace {

using Words = std::set<std::string>;

constexpr const char* kManual = QUILLON_SOURCE_DIR "/docs/man/quillonctl.1";
constexpr const char* kCompletion = QUILLON_SOURCE_DIR "/tools/quillonctl/completion";

std::string contentOf(const char* path)
{
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

/// @return every match of the expression's only group
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

const std::string& help()
{
    static const std::string text = runCtl({"--help"}).out;
    return text;
}

Words optionsOfHelp()
{
    return allMatches(between(help(), "\nOptions:", "\nSubcommands:"), "^ .*?(--[a-z-]+)");
}

Words optionsOfModules()
{
    const std::string text = runCtl({"modules", "update", "--help"}).out;
    return allMatches(between(text, "\nOptions:", "\n\n"), "^ .*?(--[a-z-]+)");
}

Words verbsOfModules()
{
    const std::string text = runCtl({"modules", "--help"}).out;
    return allMatches(between(text, "\nSubcommands:\n", "\n\n") + "\n", "^  ([a-z]+) ");
}

Words operator+(Words left, const Words& right)
{
    left.insert(right.begin(), right.end());
    return left;
}

Words verbsOfHelp()
{
    return allMatches(between(help(), "\nSubcommands:\n", "\n\n") + "\n", "^  ([a-z]+) ");
}

/// @param line  the command line; its last word, which may be empty, is completed
Words complete(const std::vector<std::string>& line)
{
    std::string script = std::string(". '") + kCompletion + "'; COMP_WORDS=(";
    for (const std::string& word : line) {
        script += " '" + word + "'";
    }
    script += "); COMP_CWORD=" + std::to_string(line.size() - 1) +
              "; _quillonctl; printf \"%s\\n\" \"${COMPREPLY[@]}\"";
    const std::string command =
        "exec bash --norc -c '" + std::regex_replace(script, std::regex("'"), "'\\''") + "'";
    Words words;
    FILE* output = popen(command.c_str(), "r");
    std::array<char, 256> buffer{};
    while (output != nullptr && fgets(buffer.data(), buffer.size(), output) != nullptr) {
        std::string word = buffer.data();
        word.pop_back();
        if (!word.empty()) {
            words.insert(word);
        }
    }
    EXPECT_EQ(pclose(output), 0);
    return words;
}

}  // namespace

TEST(CtlHelp, ListsVerbsAndOptions)
{
    EXPECT_THAT(verbsOfHelp(),
                UnorderedElementsAre("update", "estimate", "progress", "stop", "modules"));
    EXPECT_THAT(optionsOfHelp(),
                UnorderedElementsAre("--help", "--version", "--json", "--quiet", "--timeout"));
    EXPECT_THAT(verbsOfModules(), UnorderedElementsAre("list", "check", "update", "version",
                                                       "progress", "download", "unlock"));
    EXPECT_THAT(optionsOfModules(), UnorderedElementsAre("--help", "--source", "--all"));
}

TEST(CtlManual, DescribesEveryVerbAndNoOther)
{
    EXPECT_THAT(allMatches(contentOf(kManual), "^\\.It Cm ([a-z]+)"), ContainerEq(verbsOfHelp()));
    EXPECT_THAT(
        allMatches(between(contentOf(kManual), ".Cm modules\nare:", ".El"), "^\\.It Sy ([a-z]+)"),
        ContainerEq(verbsOfModules()));
}

TEST(CtlManual, DescribesEveryOptionAndNoOther)
{
    Words options;
    for (const std::string& word : allMatches(contentOf(kManual), "^\\.It .*Fl -([a-z-]+)")) {
        options.insert("--" + word);
    }
    EXPECT_THAT(options, ContainerEq(optionsOfHelp() + optionsOfModules()));
}

TEST(CtlManual, ListsEveryEventOfItsVerbs)
{
    const std::string source = contentOf(QUILLON_SOURCE_DIR "/tools/quillonctl/json-report.cpp");
    const Words events = allMatches(source, "Event\\(\"([a-z-]+)\"") +
                         allMatches(source, "eventObject\\(\"([a-z-]+)\"");
    const Words listed = allMatches(between(contentOf(kManual), ".Sh JSON OUTPUT", ".It modules\n"),
                                    "^\\.It ([a-z-]+)$");

    EXPECT_THAT(listed, ContainerEq(events));
}

TEST(CtlManual, ListsTheExitCodesOfTheHelp)
{
    const std::string codes = between(help(), "Exit codes:", "\n\n");

    EXPECT_THAT(
        allMatches(between(contentOf(kManual), ".Sh EXIT STATUS", ".Sh"), "^\\.It ([0-9]+)"),
        ContainerEq(allMatches(codes, "\\b([0-9]+) ")));
}

TEST(CtlCompletion, OffersEveryVerb)
{
    EXPECT_THAT(complete({"quillonctl", ""}), ContainerEq(verbsOfHelp()));
    EXPECT_THAT(complete({"quillonctl", "--timeout", "3", "es"}), ElementsAre("estimate"));
}

TEST(CtlCompletion, OffersEveryOptionAnywhere)
{
    EXPECT_THAT(complete({"quillonctl", "-"}), ContainerEq(optionsOfHelp()));
    EXPECT_THAT(complete({"quillonctl", "progress", "-"}), ContainerEq(optionsOfHelp()));
}

TEST(CtlCompletion, KnowsTheVerbsOfModulesAndWhatTheyTake)
{
    EXPECT_THAT(complete({"quillonctl", "modules", ""}), ContainerEq(verbsOfModules()));
    EXPECT_THAT(complete({"quillonctl", "modules", "update", "-"}),
                ContainerEq(optionsOfHelp() + optionsOfModules()));
    EXPECT_THAT(complete({"quillonctl", "modules", "list", "-"}), ContainerEq(optionsOfHelp()));
    EXPECT_THAT(complete({"quillonctl", "modules", "check", "--source", ""}),
                UnorderedElementsAre("usb", "package", "system", "shared"));
}

TEST(CtlCompletion, OffersTheNamesOfTheModulesThatAreInstalled)
{
    std::ofstream("/usr/fwupdate/controls/tuner.so").close();
    std::ofstream("/usr/fwupdate/controls/README").close();

    EXPECT_THAT(complete({"quillonctl", "modules", "version", ""}), ElementsAre("tuner"));
    EXPECT_THAT(complete({"quillonctl", "modules", "update", "--source", "usb", "t"}),
                ElementsAre("tuner"));
}

TEST(CtlCompletion, OffersDirectoriesToTheVerbsThatTakeOne)
{
    EXPECT_THAT(complete({"quillonctl", "update", "/us"}), Contains("/usr"));
    EXPECT_THAT(complete({"quillonctl", "estimate", "/us"}), Contains("/usr"));
    EXPECT_THAT(complete({"quillonctl", "progress", "/us"}), testing::IsEmpty());
    EXPECT_THAT(complete({"quillonctl", "--timeout", ""}), testing::IsEmpty());
}
