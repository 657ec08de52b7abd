#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "platform/log/message-ids.h"
#include "running-library.h"
#include "support/files.h"
#include "support/process.h"
#include "support/texts.h"

namespace fs = std::filesystem;

namespace {

using quillon::test::expectText;
using quillon::test::like;
using quillon::test::outputOf;
using quillon::test::readAll;
using quillon::test::succeeds;

using quillon::ExplainedMessage;
using quillon::messageId;

const std::string kSources = QUILLON_SOURCE_DIRECTORY "/";
const std::string kCatalogue = kSources + "packaging/systemd/quillon.catalog";

std::vector<ExplainedMessage> explainedMessages()
{
    return {quillon::kExplainedMessages,
            quillon::kExplainedMessages + quillon::kExplainedMessageCount};
}

std::vector<std::string> formatsOf(const ExplainedMessage& message)
{
    std::vector<std::string> formats;
    std::copy_if(std::begin(message.formats), std::end(message.formats),
                 std::back_inserter(formats), [](const char* format) { return format != nullptr; });
    return formats;
}

std::vector<std::string> stepFormats()
{
    return {quillon::kStepFormats, quillon::kStepFormats + quillon::kStepFormatCount};
}

std::string unescaped(const std::string& literal)
{
    const std::map<char, char> escapes = {{'n', '\n'}, {'t', '\t'}, {'"', '"'}, {'\\', '\\'}};
    std::string text;
    for (std::size_t i = 0; i < literal.size(); ++i) {
        text += literal[i] == '\\' ? escapes.at(literal[++i]) : literal[i];
    }
    return text;
}

// The formats of all calls of a log macro in a directory's sources.
std::set<std::string> formatsIn(const std::string& directory, const std::string& macro)
{
    const std::map<std::string, std::string> sockets = {
        {"QUILLON_PRIVILEGED_SOCKET", QUILLON_PRIVILEGED_SOCKET},
        {"QUILLON_STORAGE_SOCKET", QUILLON_STORAGE_SOCKET}};
    const std::regex call(macro + R"re(\(\s*((?:"(?:[^"\\]|\\.)*"\s*|QUILLON_\w+_SOCKET\s*)+))re");
    const std::regex piece(R"re("((?:[^"\\]|\\.)*)"|QUILLON_\w+_SOCKET)re");
    std::set<std::string> formats;
    for (const fs::directory_entry& file : fs::recursive_directory_iterator(kSources + directory)) {
        if (file.path().extension() != ".cpp") {
            continue;
        }
        const std::string code = readAll(file.path());
        for (std::sregex_iterator found(code.begin(), code.end(), call), end; found != end;
             ++found) {
            const std::string literals = (*found)[1];
            std::string format;
            for (std::sregex_iterator at(literals.begin(), literals.end(), piece); at != end;
                 ++at) {
                format += (*at)[1].matched ? unescaped((*at)[1]) : sockets.at((*at)[0]);
            }
            formats.insert(format);
        }
    }
    return formats;
}

struct Entry
{
    std::string id;
    std::vector<std::string> head;
    std::string body;
};

std::vector<Entry> catalogue()
{
    std::vector<Entry> entries;
    std::istringstream lines(readAll(kCatalogue));
    bool inBody = false;
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("-- ", 0) == 0) {
            entries.push_back({line.substr(3), {}, ""});
            inBody = false;
        } else if (entries.empty()) {
            continue;  // what stands in front of the first one is for people who read the file
        } else if (inBody) {
            entries.back().body += line + "\n";
        } else if (line.empty()) {
            inBody = true;
        } else {
            entries.back().head.push_back(line);
        }
    }
    return entries;
}

TEST(MessageCatalogue, KnowsAMessageByItsTagAndFormat)
{
    EXPECT_STREQ(messageId("FWUPDATE", "Error: %s has no plug-in"),
                 "ec4a0f0ed54b49f5908233a5c0780b3d");
    EXPECT_EQ(messageId("TUNER", "Error: %s has no plug-in"), nullptr);
    EXPECT_EQ(messageId("FWUPDATE", "Error: %s has no plug-in "), nullptr);
    EXPECT_EQ(messageId("FWUPDATE", "%s"), nullptr);
    EXPECT_STREQ(messageId("FWUPDATE", "Try allDoUpdateDone"), quillon::kStepId);
    EXPECT_EQ(messageId("TUNER", "Try allDoUpdateDone"), nullptr);
}

TEST(MessageCatalogue, ExplainsEachErrorOfTheServiceThatDoesNotCallItselfOne)
{
    const std::regex calledAnError(
        "Error|[Ff]ail|error|is empty|is not exist|is NOT signed|^%s$|"
        "Task is not running|no memory");
    for (const std::string& format : formatsIn("src", "FW_LOGE")) {
        EXPECT_TRUE(messageId("FWUPDATE", format.c_str()) != nullptr ||
                    std::regex_search(format, calledAnError))
            << format;
    }
}

TEST(MessageCatalogue, HasOnlyFormatsOfErrorsThatStandInTheSources)
{
    std::map<std::string, std::set<std::string>> sources = {
        {"FWUPDATE", formatsIn("src", "FW_LOGE")},
        {"QUILLON-PLATFORM", formatsIn("platform/linux", "PLATFORM_LOGE")},
        {"QUILLON-PRIVILEGED", formatsIn("helpers/mount", "PRIVILEGED_LOGE")},
    };
    sources["QUILLON-PLATFORM"].merge(formatsIn("platform/storage", "PLATFORM_LOGE"));
    sources["QUILLON-PLATFORM"].merge(formatsIn("helpers/storage", "PLATFORM_LOGE"));
    for (const ExplainedMessage& message : explainedMessages()) {
        for (const std::string& format : formatsOf(message)) {
            EXPECT_THAT(sources.at(message.tag), testing::Contains(format)) << message.id;
        }
    }
    for (const std::string& format : stepFormats()) {
        EXPECT_THAT(sources.at("FWUPDATE"), testing::Contains(format));
    }
}

TEST(MessageCatalogue, GivesEachIdAndEachFormatOneMeaning)
{
    std::set<std::string> ids = {quillon::kStepId};
    std::set<std::pair<std::string, std::string>> formats;
    for (const std::string& format : stepFormats()) {
        EXPECT_TRUE(formats.emplace("FWUPDATE", format).second) << format;
    }
    for (const ExplainedMessage& message : explainedMessages()) {
        EXPECT_TRUE(ids.insert(message.id).second) << message.id;
        EXPECT_THAT(message.id, testing::MatchesRegex("[0-9a-f]{32}"));
        for (const std::string& format : formatsOf(message)) {
            EXPECT_TRUE(formats.emplace(message.tag, format).second) << format;
        }
    }
}

TEST(MessageCatalogue, ExplainsEachIdOnceAndNoOther)
{
    std::vector<std::string> known = {quillon::kStepId};
    for (const ExplainedMessage& message : explainedMessages()) {
        known.emplace_back(message.id);
    }
    std::vector<std::string> explained;
    for (const Entry& entry : catalogue()) {
        explained.push_back(entry.id);
    }
    EXPECT_THAT(explained, testing::UnorderedElementsAreArray(known));
}

TEST(MessageCatalogue, HasASubjectAndAnExplanationForEachId)
{
    for (const Entry& entry : catalogue()) {
        ASSERT_GE(entry.head.size(), 2U) << entry.id;
        EXPECT_THAT(entry.head[0], testing::MatchesRegex("Subject: .+")) << entry.id;
        EXPECT_EQ(entry.head[1], "Defined-By: Quillon") << entry.id;
        EXPECT_GT(std::count(entry.body.begin(), entry.body.end(), '\n'), 3) << entry.id;
    }
}

TEST(MessageCatalogue, ReferToManualPagesThatExist)
{
    const std::regex page(R"(Documentation: man:([a-z-]+)\((\d)\))");
    for (const Entry& entry : catalogue()) {
        for (std::size_t i = 2; i < entry.head.size(); ++i) {
            std::smatch name;
            ASSERT_TRUE(std::regex_match(entry.head[i], name, page)) << entry.head[i];
            const std::string path = kSources + "docs/man/" + name.format("$1.$2");
            EXPECT_TRUE(fs::exists(path)) << path;
        }
    }
}

TEST(MessageCatalogue, IsTakenByTheJournalWithoutComplaint)
{
    if (!succeeds("command -v journalctl")) {
        GTEST_SKIP() << "there is no journalctl on this machine";
    }
    const fs::path root = fs::temp_directory_path() / "quillon-message-catalogue";
    const fs::path directory = root / "usr/lib/systemd/catalog";
    fs::create_directories(directory);
    fs::create_directories(root / "var/lib/systemd/catalog");
    fs::copy_file(kCatalogue, directory / "quillon.catalog", fs::copy_options::overwrite_existing);

    const std::string journalctl = "journalctl --root='" + root.string() + "' ";
    EXPECT_EQ(outputOf(journalctl + "--update-catalog 2>&1"), "");
    const std::string list = outputOf(journalctl + "--list-catalog");
    EXPECT_EQ(static_cast<std::size_t>(std::count(list.begin(), list.end(), '\n')),
              quillon::kExplainedMessageCount + 1);
    expectText(list, like("*ec4a0f0ed54b49f5908233a5c0780b3d Quillon: *"));
    fs::remove_all(root);
}

}  // namespace
