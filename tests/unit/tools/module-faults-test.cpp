// Each fault that a module may have is found by the clause that is about it.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <string>

#include "support/files.h"
#include "support/texts.h"
#include "unit/tools/module-program.h"

namespace {

namespace fs = std::filesystem;

using quillon::test::expectText;
using quillon::test::like;
using quillon::test::writeFile;

struct Fault
{
    const char* clause;
    const char* fault;  ///< of faulty-module.cpp, or a library of its own
    const char* text;   ///< like this is what is said
};

std::string nameOf(const testing::TestParamInfo<Fault>& info)
{
    std::string name = std::string(info.param.clause) + " " + info.param.fault;
    bool isBegin = true;
    std::string words;
    for (const char c : name) {
        if (c == ' ' || c == '-') {
            isBegin = true;
            continue;
        }
        words += isBegin ? static_cast<char>(std::toupper(c)) : c;
        isBegin = false;
    }
    return words;
}

void PrintTo(const Fault& fault, std::ostream* stream)
{
    *stream << fault.fault;
}

class ModuleFault : public ModuleCheck, public testing::WithParamInterface<Fault>
{
};

TEST_P(ModuleFault, IsFound)
{
    const std::string fault = GetParam().fault;
    const bool isLibrary = fault.rfind("faulty-", 0) == 0;
    const std::string file = isLibrary ? install(fault) : install("faulty-none", fault);

    const Json::Value module =
        check({file}, {"--image", image, "--timeout", "2", "--filter", GetParam().clause}, 4);

    ASSERT_EQ(module["clauses"].size(), 1U);
    EXPECT_EQ(module["clauses"][0]["verdict"], "broken");
    expectText(module["clauses"][0]["text"].asString(), like(GetParam().text));
}

constexpr Fault kFaults[] = {
    {"libraries", "throws when loaded", "it throws an exception while it is loaded: *"},
    {"libraries", "faulty-missing-library", "liblibrary-that-is-gone.so: cannot open*"},
    {"symbols", "faulty-missing-symbol", "*undefined symbol: _Z13nobodyHasThisv: link it with*"},
    {"entries", "faulty-mangled", "setContext is there as _Z10setContextPKc11CallerTypesPc, *"},
    {"entries", "faulty-null-entry", "doUpdate is null"},
    {"executable-memory", "faulty-executable-stack", "it makes the stack executable*"},
    {"exports", "faulty-exports", "*helperOfEveryModule*"},
    {"unloading", "faulty-crash-at-unload", "it crashes in its unloading (SIGABRT)"},
    {"stick-entries", "faulty-without-time",
     "it has doUpdate_decryption, but not getExpectedTime*"},

    {"context", "refuses a caller", "setContext returns -1 for the caller 5 with *"},
    {"context", "reads a null argument", "it crashes in setContext (SIGSEGV)"},
    {"argument-pointer", "changes the argument", "it crashes in setContext (SIGSEGV)"},
    {"argument-pointer", "keeps the argument", "it crashes in getUpdateProgress (SIGSEGV)"},
    {"identifier", "identifier with a dash", "*other characters than*: a-lanternemp"},
    {"identifier", "identifier without emp", "it does not contain \"emp\"*: lantern"},
    {"identifier", "identifier with two", "it contains \"emp\" more than once*"},
    {"identifier", "identifier is long", "getEMPID writes behind the 128 bytes*"},
    {"image-name", "identifier is taken", "the service looks for taken.bin, not for lantern.bin"},
    {"version", "version is empty", "it is empty"},
    {"version", "version is noise", "it has characters that cannot be printed*"},
    {"version", "version is long", "getActiveVersion writes behind the 128 bytes*"},
    {"version", "version has no end", "getActiveVersion writes no terminator*"},
    {"version", "version fails", "getActiveVersion returns -1, not 0"},
    {"same-answers", "tells something else", "it tells another version*"},
    {"quick-queries", "is slow", "getActiveVersion takes * ms: *"},
    {"expected-time", "expects nothing", "it expects 0 seconds"},
    {"need", "never answers", "checkVersion returns 0 and leaves need unwritten"},
    {"need", "answers 2", "checkVersion answers a need of 2*"},
    {"need", "refuses every version", "checkVersion returns -1 for 1.1"},
    {"same-version", "wants the same again", "it runs 1.0 and wants it again*"},
    {"older-version", "crashes at an older version", "it crashes in checkVersion (SIGABRT)"},
    {"noise", "takes noise", "noise counts as a version*"},
    {"empty-version", "takes an empty version", "an empty text counts as a version*"},
    {"overlong-version", "takes a long version", "a text of 128 characters counts as*"},

    {"stick-update", "fails", "the update returns -1 (errno: Input/output error)"},
    {"stick-update", "lies about the version", "the update succeeds, but it runs 1.0, not 1.1"},
    {"stick-update", "throws", "doUpdate_decryption has thrown an exception: no component"},
    {"stick-update", "crashes", "it crashes in doUpdate_decryption (SIGABRT)"},
    {"stick-update", "exits", "it ends the process in doUpdate_decryption with status 0"},
    {"stick-update", "hangs", "doUpdate_decryption does not return*"},
    {"package-update", "lies about the version", "the update succeeds, but it runs 1.0, not 1.1"},
    {"package-update", "crashes", "it crashes in doUpdate (SIGABRT)"},
    {"remembered", "forgets the version", "it was updated to 1.1, but runs 1.0 in another*"},
    {"honest-time", "is late", "it expects 1 s and takes 3* ms*"},
    {"missing-file", "installs a missing file", "the update returns 0"},
    {"missing-file", "no errno", "the update fails without errno*"},
    {"empty-payload", "no errno", "the update fails without errno*"},
    {"empty-payload", "forgets an empty update", "the update succeeds, but it runs 1.0, not 1.1"},
    {"no-offer", "installs unasked", "the update returns 0"},
    {"version-pointer", "keeps the version", "it crashes in doUpdate_decryption (SIGSEGV)"},
    {"payload-bounds", "reads too far", "it crashes in doUpdate_decryption (SIGSEGV)"},
    {"payload-bounds", "changes the payload", "it crashes in doUpdate_decryption (SIGSEGV)"},
    {"payload-pointer", "keeps the payload", "it crashes in getUpdateProgress (SIGSEGV)"},
    {"path-pointer", "keeps the path", "it crashes in getUpdateProgress (SIGSEGV)"},
    {"path-pointer", "keeps the image open", "the image is still open*"},
    {"queries-meanwhile", "crashes when asked meanwhile", "it crashes in *"},
    {"progress", "is over 100", "it is 250 before an update"},
    {"progress", "ends at 90", "it is 90 after an update"},
    {"end-of-run", "the run fails", "allUpdateDone returns -1"},

    {"threads", "leaves a thread", "threads go on: *"},
    {"children", "leaves a process", "a process that it has started still runs"},
    {"children", "leaves a daemon", "a process that it has started still runs"},
    {"children", "leaves a zombie", "it does not wait for a process*"},
    {"children", "child returns", "a process that it has forked returns from an entry*"},
    {"descriptors", "leaves a file open", "open files: *(/dev/null)"},
    {"descriptors", "closes files", "it closes what is not its own: 0 (/dev/null)"},
    {"signals", "changes a signal", "it changes the handler of signal 17"},
    {"signals", "blocks a signal", "it changes whether SIGTERM is blocked"},
    {"working-directory", "changes the directory", "it changes to /"},
    {"working-directory", "changes the file mask", "it changes the file mask"},
    {"silent", "talks", "it writes * bytes: see the log"},
    {"silent", "floods", "it writes 65536 bytes: see the log"},
};

INSTANTIATE_TEST_SUITE_P(Of, ModuleFault, testing::ValuesIn(kFaults), nameOf);

class ModuleFile : public ModuleCheck
{
protected:
    /// What is said of a clause that must be broken.
    std::string textOfBroken(const std::string& file, const char* clause,
                             const std::vector<std::string>& more = {}) const
    {
        std::vector<std::string> arguments = {"--filter", clause};
        arguments.insert(arguments.end(), more.begin(), more.end());
        const Json::Value found = check({file}, arguments, 4)["clauses"][0];
        EXPECT_EQ(found["verdict"], "broken");
        return found["text"].asString();
    }

    std::string info(const std::string& text) const
    {
        writeFile(directory + "/info.json", text);
        return directory + "/info.json";
    }
};

TEST_F(ModuleFile, ThatIsNoLibraryIsFound)
{
    writeFile(directory + "/text.so", "no library");
    expectText(textOfBroken(directory + "/text.so", "file"), like("it is no shared library*"));
}

TEST_F(ModuleFile, UnderAnotherNameIsFound)
{
    const std::string file = install("faulty-none");
    fs::rename(file, directory + "/lantern.so.1");
    expectText(textOfBroken(directory + "/lantern.so.1", "file"), like("*ends in .so"));
}

TEST_F(ModuleFile, OfAnotherProcessorIsFound)
{
    constexpr int kPlaceOfMachine = 18;
    const std::string file = install("faulty-none");
    std::fstream(file, std::ios::binary | std::ios::in | std::ios::out)
        .seekp(kPlaceOfMachine)
        .write("\x02\x00", 2);
    expectText(textOfBroken(file, "architecture"), like("it is built for ELF machine 2, *"));
}

TEST_F(ModuleFile, ThatOnlyItsOwnerReadsIsFound)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root, who becomes another user";
    }
    const std::string file = install("faulty-none");
    fs::permissions(file, fs::perms(0700));
    expectText(textOfBroken(file, "unprivileged"), like("as *Permission denied"));
}

TEST_F(ModuleFile, WithTheFirmwareNameOfAnotherIsFound)
{
    const std::string file = install("faulty-none", "identifier is taken");
    install("faulty-none", "", "taken");
    const Json::Value module = check({file, directory + "/taken.so"}, {"--filter", "unique"}, 4);
    EXPECT_EQ(module["clauses"][0]["text"], "taken.so has the firmware name taken as well");
}

TEST_F(ModuleFile, WithWrongInformationIsFound)
{
    const std::string file = install("faulty-none");
    for (const auto& [text, said] : {
             std::pair{"{", "*is no JSON object"},
             {R"({"crc":1,"expected_time":1})", "*has no text \"version\""},
             {R"({"version":"","crc":1,"expected_time":1})", "*\"version\" must be*"},
             {R"({"version":"2.0","crc":1})", "*\"expected_time\" must be*"},
             {R"({"version":"2.0","crc":"1","expected_time":1})", "*\"crc\" must be a number*"},
             {R"({"version":"2.0","crc":1,"expected_time":1})", "*\"crc\" must be *, the CRC-32*"},
         }) {
        expectText(textOfBroken(file, "info", {"--image", image, "--info", info(text)}),
                   like(said));
    }
}

TEST_F(ModuleFile, ThatRefusesTheVersionOfItsInformationIsFound)
{
    const std::string file = install("faulty-none");
    const std::string path = info(R"({"version":"2 0","crc":1,"expected_time":1})");
    expectText(textOfBroken(file, "info-version", {"--info", path}),
               like("checkVersion returns -1 for 2 0"));
}

TEST_F(ModuleFile, WithoutAFaultKeepsEveryClause)
{
    const std::string file = install("faulty-none");
    install("faulty-none", "", "other");
    const Json::Value alone = check({file}, {"--image", image}, 0);
    EXPECT_EQ(clausesOf(alone, "broken").size(), 0U);
    EXPECT_EQ(clausesOf(alone, "notChecked"),
              (std::vector<std::string>{"unique", "info", "info-version"}));
    const Json::Value beside = check({file, directory + "/other.so"}, {"--filter", "unique"}, 0);
    EXPECT_EQ(beside["kept"], 1);
}

TEST_F(ModuleFile, OfEachExampleKeepsEveryClause)
{
    for (const char* name : {"tuner", "panel", "camera", "clock", "emulated"}) {
        writeFile(directory + "/" + name + ".bin", std::string(2000, 'x'));
        const Json::Value module = check({std::string(EXAMPLE_MODULES) + "/" + name + ".so"},
                                         {"--image", directory + "/" + name + ".bin"}, 0);
        EXPECT_EQ(clausesOf(module, "broken"), std::vector<std::string>()) << name;
        EXPECT_EQ(clausesOf(module, "notChecked").size(), 3U) << name;
    }
    const Json::Value process = check({EXAMPLE_MODULES "/EXT-selftest.so"}, {}, 0);
    EXPECT_EQ(clausesOf(process, "broken"), std::vector<std::string>());
    EXPECT_EQ(clauseIn(process, "identifier")["text"], "it is a process module");
}

// The table and this page: a clause that nothing can break says nothing.
TEST_F(ModuleFile, EachClauseHasAFaultThatBreaksIt)
{
    std::vector<std::string> held = {"file",   "architecture", "unprivileged",
                                     "unique", "info",         "info-version"};  // above
    for (const Fault& fault : kFaults) {
        held.emplace_back(fault.clause);
    }
    for (const Json::Value& clause :
         check({install("faulty-none")}, {"--image", image}, 0)["clauses"]) {
        EXPECT_NE(std::find(held.begin(), held.end(), clause["clause"].asString()), held.end())
            << clause["clause"].asString();
    }
}

}  // namespace
