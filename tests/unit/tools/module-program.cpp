#include "unit/tools/module-program.h"

#include <json/json.h>
#include <stdlib.h>

#include <filesystem>
#include <sstream>
#include <stdexcept>

#include "support/files.h"
#include "support/sanitizers.h"

namespace fs = std::filesystem;

using quillon::test::Result;
using quillon::test::writeFile;

namespace {

std::string newDirectory()
{
    std::string pattern = fs::temp_directory_path() / "module-check-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("no directory for modules");
    }
    fs::permissions(pattern, fs::perms(0755));
    return pattern;
}

}  // namespace

ModuleCheck::ModuleCheck() : directory(newDirectory()), image(directory + "/lantern.bin")
{
    writeFile(image, "firmware of the lantern");
}

ModuleCheck::~ModuleCheck()
{
    fs::remove_all(directory);
}

std::string ModuleCheck::install(const std::string& library, const std::string& fault,
                                 const std::string& name) const
{
    const std::string path = directory + "/" + name + ".so";
    fs::copy_file(std::string(TEST_MODULES) + "/" + library + ".so", path,
                  fs::copy_options::overwrite_existing);
    writeFile(directory + "/" + name + ".fault", fault);
    return path;
}

Json::Value ModuleCheck::check(const std::vector<std::string>& files,
                               const std::vector<std::string>& arguments, int exitCode) const
{
    std::vector<std::string> words = {"check", "--json"};
    words.insert(words.end(), files.begin(), files.end());
    words.insert(words.end(), arguments.begin(), arguments.end());
    const Result result = runModule(words);
    EXPECT_EQ(result.status, exitCode) << result.out << result.err;
    EXPECT_EQ(result.err, "");
    std::istringstream text(result.out);
    Json::Value document;
    std::string trouble;
    EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), text, &document, &trouble))
        << result.out;
    return document["modules"][0];
}

Json::Value ModuleCheck::clauseIn(const Json::Value& module, const std::string& name)
{
    for (const Json::Value& clause : module["clauses"]) {
        if (clause["clause"] == name) {
            return clause;
        }
    }
    return {};
}

Result runModule(const std::vector<std::string>& arguments)
{
    quillon::test::leaveCrashesToPrograms();
    std::vector<std::string> words = {MODULE_PROGRAM};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return quillon::test::run(words);
}

std::vector<std::string> clausesOf(const Json::Value& module, const std::string& verdict)
{
    std::vector<std::string> names;
    for (const Json::Value& clause : module["clauses"]) {
        if (clause["verdict"] == verdict) {
            names.push_back(clause["clause"].asString());
        }
    }
    return names;
}
