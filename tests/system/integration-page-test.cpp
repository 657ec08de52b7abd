// What docs/integration.md says of a device's own platform library, word for word: its try.sh, and
// the script for a system without systemd. The service was built on examples/platform.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "support/process.h"
#include "support/texts.h"
#include "unit/verifier/test-keys.h"

namespace quillon::test {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

constexpr char kKeyFile[] = DEVICE_KEYS "/quillon";

/// @return the page's shell block that contains a text
std::string blockWith(const std::string& page, const std::string& text)
{
    const std::string opening = "```sh\n";
    const std::size_t begin = page.rfind(opening, page.find(text)) + opening.size();
    return page.substr(begin, page.find("```", begin) - begin);
}

std::string replaced(std::string text, const std::string& what, const std::string& by)
{
    for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += by.size()) {
        text.replace(at, what.size(), by);
    }
    return text;
}

/// A directory as the page's reader has it: keys, the built service, the module.
class IntegrationPage : public ::testing::Test
{
protected:
    void SetUp() override
    {
        std::string pattern = (fs::temp_directory_path() / "integration-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        directory = pattern + "/";
        fs::create_directories(directory + "build-device/bin");
        fs::create_directories(directory + "build-device/lib");
        fs::create_directories(directory + "lamp/build");
        fs::create_symlink(SERVICE_PROGRAM, directory + "build-device/bin/quillon-service");
        for (const char* tool : {"quillon-image", "quillonctl"}) {
            fs::create_symlink(BUILD_DIRECTORY "/bin/" + std::string(tool),
                               directory + "build-device/bin/" + tool);
        }
        fs::create_symlink(VERIFIER_LIBRARY, directory + "build-device/lib/libkUEPUser.so");
        fs::create_symlink(LAMP_MODULE, directory + "lamp/build/lamp.so");
        fs::create_symlink(SOURCE_DIRECTORY "/examples/module-template/package",
                           directory + "lamp/package");
        fs::create_symlink(fs::path(keyPath("a", kImageKeyFile)).parent_path(), directory + "keys");
        writeFile(directory + "try.sh", blockWith(readAll(SOURCE_DIRECTORY "/docs/integration.md"),
                                                  "What the factory does."));
    }

    void TearDown() override { fs::remove_all(directory); }

    int shell(const std::string& command)
    {
        const Result result = runInShell("cd '" + directory + "' && {\n" + command + "\n} 2>&1");
        output = result.out;
        return result.status;
    }

    std::string directory;
    std::string output;
};

TEST_F(IntegrationPage, ItsVirtualDeviceIsUpdatedAndEndsInOrder)
{
    // The test is on a device of its own already, so the script runs as it is.
    EXPECT_EQ(shell("sh try.sh"), 0) << output << readAll(directory + "service.log");
    expectText(output, like("*The update finished after *"));
    expectText(
        output,
        like("* s\nLooking once more at the stick\n2.0\nended with status 0\nquillon-service[*"));
}

TEST_F(IntegrationPage, ItsInitScriptStartsTheServiceAndEndsItInOrder)
{
    if (shell("command -v start-stop-daemon mountpoint") != 0) {
        GTEST_SKIP() << "start-stop-daemon or mountpoint is not installed";
    }
    std::string script = readAll(SOURCE_DIRECTORY "/examples/platform/quillon.init");
    script = replaced(script, "/usr/sbin/quillon-service",
                      directory + "build-device/bin/quillon-service");
    for (const char* place : {"/var/log/", "/run/quillon-service"}) {
        ASSERT_THAT(script, HasSubstr(place));
        script = replaced(script, place, directory + fs::path(place).filename().string());
    }
    writeFile(directory + "quillon", script);
    fs::create_directories(DEVICE_KEYS);
    fs::copy_file(directory + "keys/image-key.bin", kKeyFile);

    // As in a container whose first process does not look after those that have ended.
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);

    ASSERT_EQ(shell("sh quillon start"), 0) << output;
    EXPECT_EQ(shell("build-device/bin/quillonctl progress"), 0) << output;
    EXPECT_EQ(shell("build-device/bin/quillonctl progress --follow"), 0) << output;
    EXPECT_EQ(shell("build-device/bin/quillonctl history"), 0);
    EXPECT_EQ(output, "No update is recorded\n");

    // Nobody waits for the one that is killed, so it stays in the list of processes.
    ASSERT_EQ(shell("kill -KILL $(cat quillon-service.pid)"), 0) << output;
    ASSERT_EQ(shell("sh quillon start"), 0) << output << readAll(directory + "quillon.log");
    EXPECT_EQ(shell("build-device/bin/quillonctl progress"), 0) << output;
    EXPECT_EQ(shell("timeout 60 sh quillon stop"), 0) << output;

    expectText(readAll(directory + "quillon.log"), like("*firmware_control_task thread stop*"));
    EXPECT_NE(shell("build-device/bin/quillonctl progress"), 0) << "the service has ended";
    EXPECT_FALSE(fs::exists("/tmp/.fw_service_ready_usb"));
}

}  // namespace
}  // namespace quillon::test
