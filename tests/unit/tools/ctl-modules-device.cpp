#include "unit/tools/ctl-modules-device.h"

#include <json/reader.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "support/checksum.h"
#include "support/files.h"

namespace fs = std::filesystem;

namespace {

using quillon::test::writeFile;

constexpr const char* kModuleDirectory = "/usr/fwupdate/controls/";
constexpr const char* kSettingsDirectory = "/etc/quillon-test/";

void putImage(const std::string& directory, const std::string& name, std::int64_t seconds,
              unsigned int change)
{
    const std::string payload = "payload of " + name;
    const unsigned int crc =
        quillon::imageChecksum(0, reinterpret_cast<const unsigned char*>(payload.data()),
                               payload.size()) ^
        change;
    writeFile(directory + name + "/" + name + ".bin", payload);
    writeFile(directory + name + "/info.json", R"({"version":"2.0","crc":)" + std::to_string(crc) +
                                                   R"(,"expected_time":)" +
                                                   std::to_string(seconds) + "}");
}

}  // namespace

CtlModules::CtlModules()
{
    // A journal of the machine that runs the tests is none of the device's.
    unsetenv("JOURNAL_STREAM");
}

void CtlModules::install(const std::string& name, const std::string& settings,
                         const std::string& library)
{
    // An update that is over at once may escape the registry, which then takes it for late.
    writeFile(kSettingsDirectory + name + ".conf", "doUpdate.delay_ms=100\n" + settings);
    fs::create_directories(kModuleDirectory);
    fs::copy_file(std::string(TEST_MODULES) + "/" + library + ".so",
                  kModuleDirectory + name + ".so", fs::copy_options::overwrite_existing);
}

void CtlModules::installFile(const std::string& name, const std::string& content)
{
    writeFile(kModuleDirectory + name + ".so", content);
}

void CtlModules::offer(const std::string& name, std::int64_t seconds, const std::string& directory)
{
    putImage(directory, name, seconds, 0);
}

void CtlModules::offerWithWrongChecksum(const std::string& name)
{
    putImage("/lib/firmware/ext/", name, 3, 1);
}

Json::Value modulesDocument(std::vector<std::string> arguments, int exitCode)
{
    arguments.insert(arguments.begin(), "--json");
    const ModulesResult result = runModules(std::move(arguments));
    EXPECT_EQ(result.exitCode, exitCode) << result.out << result.err << result.log;
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 1) << "one document";
    Json::Value document;
    std::istringstream text(result.out);
    EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), text, &document, nullptr))
        << result.out;
    return document;
}

Json::Value moduleIn(const Json::Value& document, const std::string& name)
{
    for (const Json::Value& module : document["modules"]) {
        if (module["name"] == name) {
            return module;
        }
    }
    return Json::Value();
}

std::vector<std::string> callsOfModule(const std::string& name)
{
    std::vector<std::string> calls;
    std::ifstream file("/tmp/quillon-test-" + name + ".log");
    for (std::string line; std::getline(file, line);) {
        calls.push_back(line.substr(name.size() + 1));
    }
    return calls;
}

ModulesResult splitLog(const CtlResult& result)
{
    ModulesResult split;
    static_cast<CtlResult&>(split) = result;
    split.err.clear();
    std::istringstream lines(result.err);
    for (std::string line; std::getline(lines, line);) {
        const bool isLog = line.rfind("FWUPDATE ", 0) == 0 || line.rfind("QUILLON-", 0) == 0;
        (isLog ? split.log : split.err) += line + "\n";
    }
    return split;
}

ModulesResult runModules(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), "modules");
    return splitLog(runCtl(arguments));
}
