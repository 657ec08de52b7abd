// A run with modules and their components, and the same run with emulated ones.

#include <json/json.h>

#include <filesystem>
#include <sstream>

#include "support/files.h"
#include "support/process.h"
#include "system/system-test.h"

namespace quillon::test {
namespace {

namespace fs = std::filesystem;

/// A tuner that takes its time, a panel that is newer than its image, a camera without an image,
/// and a module "horn" that fails, whose identifier is not made of its name.
class ReplayedRun : public SystemTest
{
protected:
    void SetUp() override
    {
        SystemTest::SetUp();
        fs::create_directories("/run/quillon/run");
        setModule("tuner", 10000, 3);
        putImage("tuner", "2.0", randomBytes(3000, 1));
        writeFile("/var/lib/quillon/examples/panel/version", "1.2");
        putImage("panel", "0.9", randomBytes(3000, 2));
        installTestModule("horn",
                          "empid=sirenemp\nversion=1.5\nneed=1\nseconds=7\n"
                          "doUpdate_decryption.result=5\n");
        putImage("siren", "3.0", randomBytes(3000, 3));
    }

    /// Runs a command of the page in a directory of its own.
    static int runOfPage(const std::string& command)
    {
        EXPECT_NE(readAll(TUTORIAL_PAGE).find("\n" + command + "\n"), std::string::npos) << command;
        return runInShell("mkdir -p /tmp/desk && cd /tmp/desk && PATH=" TOOLS ":$PATH && " +
                          command)
            .status;
    }

    /// @return what quillonctl says of the modules and of their update
    std::string record()
    {
        daemon.startAndWait();
        EXPECT_EQ(runOfPage("quillonctl --json modules list >run.jsonl"), 0);
        EXPECT_EQ(runOfPage("quillonctl --json update /opt/media/USBDriveA >>run.jsonl"), 6);
        daemon.end();
        return readAll("/tmp/desk/run.jsonl");
    }

    /// The modules that an event tells of, by their names.
    static std::map<std::string, Json::Value> told(const std::string& record,
                                                   const std::string& event)
    {
        std::map<std::string, Json::Value> modules;
        std::istringstream lines(record);
        for (std::string line; std::getline(lines, line);) {
            Json::Value value;
            std::istringstream(line) >> value;
            for (const Json::Value& module :
                 value["event"] == event ? value["modules"] : Json::Value()) {
                modules[module["name"].asString()] = module;
            }
        }
        return modules;
    }

    static std::map<std::string, Json::Value> withoutTimes(
        std::map<std::string, Json::Value> modules)
    {
        for (auto& [name, module] : modules) {
            module.removeMember("seconds");
        }
        return modules;
    }
};

TEST_F(ReplayedRun, IsAsItWasRecorded)
{
    const std::string recorded = record();
    ASSERT_EQ(told(recorded, "updated").size(), 2U) << recorded;

    fs::remove_all(kModules);
    fs::create_directories(kModules);
    fs::remove_all("/var/lib/quillon/examples");
    ASSERT_EQ(runOfPage("quillon-module emulate run.jsonl replay"), 0);
    fs::copy("/tmp/desk/replay", kModules);
    const std::string replayed = record();

    for (const char* event : {"modules", "looked", "updated"}) {
        EXPECT_EQ(withoutTimes(told(replayed, event)), withoutTimes(told(recorded, event)))
            << event;
    }
    EXPECT_EQ(told(replayed, "looked").size(), 4U);
    // Whatever the machine, the replay waits for what was recorded; a clock tells milliseconds.
    EXPECT_GE(told(replayed, "updated")["tuner"]["seconds"].asDouble(),
              told(recorded, "updated")["tuner"]["seconds"].asDouble() - 0.002);
}

}  // namespace
}  // namespace quillon::test
