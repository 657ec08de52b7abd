// The manual page and the completion know what the program knows.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include "support/files.h"
#include "support/process.h"
#include "unit/tools/ctl-program.h"
#include "unit/tools/ctl-vocabulary.h"

namespace {

using quillon::test::outputOf;
using quillon::test::readAll;

constexpr const char* kCompletion = QUILLON_COMPLETION "/quillonctl.bash";

const std::string& help()
{
    static const std::string text = runCtl({"--help"}).out;
    return text;
}

Words optionsOfHelp()
{
    return allMatches(between(help(), "\nOptions:", "\nSubcommands:"), "^ .*?(--[a-z-]+)");
}

Words optionsOf(std::vector<std::string> verb)
{
    verb.emplace_back("--help");
    return allMatches(between(runCtl(verb).out, "\nOptions:", "\n\n"), "^ .*?(--[a-z-]+)");
}

Words optionsOfModules()
{
    return optionsOf({"modules", "update"});
}

Words optionsOfHistory()
{
    return optionsOf({"history"});
}

Words optionsOfProgress()
{
    const std::string text = runCtl({"progress", "--help"}).out;
    return allMatches(between(text, "\nOptions:", "\n\n"), "^ .*?(--[a-z-]+)");
}

Words operator+(Words left, const Words& right)
{
    left.insert(right.begin(), right.end());
    return left;
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
    std::istringstream lines(outputOf(command));
    for (std::string word; std::getline(lines, word);) {
        if (!word.empty()) {
            words.insert(word);
        }
    }
    return words;
}

}  // namespace

TEST(CtlHelp, ListsVerbsAndOptions)
{
    EXPECT_EQ(verbsOf({}), (Words{"update", "check", "estimate", "progress", "stop", "history",
                                  "doctor", "modules"}));
    EXPECT_EQ(optionsOfHelp(), (Words{"--help", "--version", "--json", "--quiet", "--timeout"}));
    EXPECT_EQ(verbsOf({"modules"}),
              (Words{"list", "check", "update", "version", "progress", "download", "unlock"}));
    EXPECT_EQ(optionsOfModules(), (Words{"--help", "--source", "--all"}));
    EXPECT_EQ(optionsOfHistory(), (Words{"--help", "--since", "--plot"}));
}

TEST(CtlManual, DescribesEveryVerbAndNoOther)
{
    EXPECT_EQ(allMatches(manualPage(), "^\\.It Cm ([a-z]+)"), verbsOf({}));
    EXPECT_EQ(allMatches(between(manualPage(), ".Cm modules\nare:", ".El"), "^\\.It Sy ([a-z]+)"),
              verbsOf({"modules"}));
}

TEST(CtlManual, DescribesEveryOptionAndNoOther)
{
    Words options;
    for (const std::string& word : allMatches(manualPage(), "^\\.It .*Fl -([a-z-]+)")) {
        options.insert("--" + word);
    }
    EXPECT_EQ(options,
              optionsOfHelp() + optionsOfProgress() + optionsOfModules() + optionsOfHistory());
}

TEST(CtlManual, ListsEveryEventOfItsVerbs)
{
    const std::string tool = QUILLON_SOURCE_DIR "/tools/quillonctl/";
    const char* call = "(?:say|event|sayModules)\\(\\s*(?:output_?, )?\"([a-z-]+)\"";
    Words events;
    for (const char* file : {"doctor/doctor.cpp", "follow.cpp", "history.cpp", "output.cpp",
                             "run-report.cpp", "verbs.cpp"}) {
        events = events + allMatches(readAll(tool + file), call);
    }
    const Words listed =
        allMatches(between(manualPage(), ".Sh JSON OUTPUT", ".It modules\n"), "^\\.It ([a-z-]+)$");

    EXPECT_EQ(listed, events);
}

TEST(CtlManual, ListsTheExitCodesOfTheHelp)
{
    const std::string codes = between(help(), "Exit codes:", "\n\n");

    EXPECT_EQ(allMatches(between(manualPage(), ".Sh EXIT STATUS", ".Sh"), "^\\.It ([0-9]+)"),
              allMatches(codes, "\\b([0-9]+) "));
}

TEST(CtlCompletion, OffersEveryVerb)
{
    EXPECT_EQ(complete({"quillonctl", ""}), verbsOf({}));
    EXPECT_EQ(complete({"quillonctl", "--timeout", "3", "es"}), (Words{"estimate"}));
}

TEST(CtlCompletion, OffersEveryOptionAnywhere)
{
    EXPECT_EQ(complete({"quillonctl", "-"}), optionsOfHelp());
    EXPECT_EQ(complete({"quillonctl", "stop", "-"}), optionsOfHelp());
    EXPECT_EQ(complete({"quillonctl", "progress", "-"}), optionsOfHelp() + Words{"--follow"});
}

TEST(CtlCompletion, KnowsTheVerbsOfModulesAndWhatTheyTake)
{
    EXPECT_EQ(complete({"quillonctl", "modules", ""}), verbsOf({"modules"}));
    EXPECT_EQ(complete({"quillonctl", "modules", "update", "-"}),
              optionsOfHelp() + optionsOfModules());
    EXPECT_EQ(complete({"quillonctl", "modules", "list", "-"}), optionsOfHelp());
    EXPECT_EQ(complete({"quillonctl", "modules", "check", "--source", ""}),
              (Words{"usb", "package", "system", "shared"}));
}

TEST(CtlCompletion, KnowsWhatTheHistoryTakes)
{
    EXPECT_EQ(complete({"quillonctl", "history", "-"}), optionsOfHelp() + optionsOfHistory());
    EXPECT_TRUE(complete({"quillonctl", "history", "--since", ""}).empty());
    EXPECT_EQ(complete({"quillonctl", "history", "--plot", "/us"}).count("/usr"), 1U);
    EXPECT_EQ(complete({"quillonctl", "--plot", "stop", "his"}), (Words{"history"}));
}

TEST(CtlCompletion, OffersTheNamesOfTheModulesThatAreInstalled)
{
    std::ofstream("/usr/fwupdate/controls/tuner.so").close();
    std::ofstream("/usr/fwupdate/controls/README").close();

    EXPECT_EQ(complete({"quillonctl", "modules", "version", ""}), (Words{"tuner"}));
    EXPECT_EQ(complete({"quillonctl", "modules", "update", "--source", "usb", "t"}),
              (Words{"tuner"}));
}

TEST(CtlCompletion, OffersDirectoriesToTheVerbsThatTakeOne)
{
    EXPECT_EQ(complete({"quillonctl", "update", "/us"}).count("/usr"), 1U);
    EXPECT_EQ(complete({"quillonctl", "estimate", "/us"}).count("/usr"), 1U);
    EXPECT_TRUE(complete({"quillonctl", "progress", "/us"}).empty());
    EXPECT_TRUE(complete({"quillonctl", "--timeout", ""}).empty());
}

TEST(CtlTroubleshooting, QuotesWhatTheProgramSays)
{
    std::string sources;
    for (const char* room : {"client", "tools/shared", "tools/quillonctl"}) {
        for (const auto& file : std::filesystem::recursive_directory_iterator(
                 std::string(QUILLON_SOURCE_DIR "/") + room)) {
            sources += file.path().extension() == ".cpp" ? readAll(file.path()) : "";
        }
    }
    sources = std::regex_replace(sources, std::regex("\"\\s+\""), "");  // literals in pieces
    const std::string tables = between(readAll(QUILLON_SOURCE_DIR "/docs/troubleshooting.md"),
                                       "## What quillonctl says", "\n## ");
    const Words messages = allMatches(tables, "^\\| `([^`]+)` \\|");
    EXPECT_GT(messages.size(), 30U);
    for (const std::string& message : messages) {
        const std::regex between("…");
        for (std::sregex_token_iterator piece(message.begin(), message.end(), between, -1), end;
             piece != end; ++piece) {
            if (piece->length() == 0) {
                continue;  // the message begins or ends with one
            }
            EXPECT_NE(sources.find(*piece), std::string::npos) << message;
        }
    }
}
