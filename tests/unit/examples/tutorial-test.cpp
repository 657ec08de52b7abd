// docs/module-tutorial.md, followed word for word: its module is written, built and updated by the
// real service with the page's own commands.

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/files.h"
#include "support/process.h"
#include "support/texts.h"

using ::testing::SizeIs;

namespace quillon::test {
namespace {

namespace fs = std::filesystem;

/// @return the blocks of one language on a page.
std::vector<std::string> blocksOf(const std::string& page, const std::string& language)
{
    const std::string opening = "```" + language + "\n";
    std::vector<std::string> blocks;
    for (std::size_t at = page.find(opening); at != std::string::npos;
         at = page.find(opening, at)) {
        at += opening.size();
        blocks.push_back(page.substr(at, page.find("```", at) - at));
    }
    return blocks;
}

class Tutorial : public ::testing::Test
{
protected:
    void SetUp() override
    {
        std::string pattern = (fs::temp_directory_path() / "tutorial-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        directory = pattern + "/";
        fs::create_symlink(SOURCE_DIRECTORY "/include", directory + "include");
        fs::create_symlink(SOURCE_DIRECTORY "/examples", directory + "examples");
        fs::create_symlink(BUILD_DIRECTORY, directory + "build");

        const std::string page = readAll(SOURCE_DIRECTORY "/docs/module-tutorial.md");
        ASSERT_THAT(blocksOf(page, "c"), SizeIs(1));
        commands = blocksOf(page, "sh");
        ASSERT_THAT(commands, SizeIs(6));
        std::ofstream(directory + "siren.c") << blocksOf(page, "c")[0];
        std::ofstream(directory + "try.sh") << commands[3];
    }

    void TearDown() override { fs::remove_all(directory); }

    int shell(const std::string& command)
    {
        const Result result = runInShell("cd '" + directory + "' && {\n" + command + "\n} 2>&1");
        output = result.out;
        return result.status;
    }

    std::string directory;
    std::vector<std::string> commands;
    std::string output;
};

TEST_F(Tutorial, ItsModulesCompileWithoutAWarning)
{
    EXPECT_EQ(shell(commands[0]), 0);
    EXPECT_EQ(output, "");
    EXPECT_EQ(shell(commands[1]), 0);
    EXPECT_EQ(output, "");
}

TEST_F(Tutorial, ItsModuleIsUpdatedByTheService)
{
    ASSERT_EQ(shell(commands[0]), 0) << output;
    ASSERT_EQ(shell(commands[2]), 0) << output;

    // The test is on a device of its own already, so the script runs as it is.
    EXPECT_EQ(shell("sh try.sh"), 0) << output << readAll(directory + "service.log");
    expectText(output, like("*The update finished after *"));  // 0 or 1 s: not our business
    expectText(output, like("* s\nLooking once more at the stick\ninstalled: 2.0\n"));
}

TEST_F(Tutorial, ItsModuleBreaksNoClause)
{
    ASSERT_EQ(shell(commands[0]), 0) << output;
    writeFile(directory + "siren.bin", "firmware 1.0 of the siren");
    EXPECT_EQ(shell("build/bin/quillon-module check siren.so --image siren.bin --only-failed"), 0);
    expectText(output, like("*/siren.so: * kept, 0 broken, 2 not offered, 3 not checked\n"));
}

TEST_F(Tutorial, ItsPackageHoldsWhatItsModuleTakes)
{
    if (shell("command -v mksquashfs unsquashfs") != 0) {
        GTEST_SKIP() << "squashfs-tools are not installed";
    }
    ASSERT_EQ(shell(commands[0]), 0) << output;
    ASSERT_EQ(shell(commands[5]), 0) << output;
    expectText(output, like("*sirenemp.img: version 2.1, *"));
    ASSERT_EQ(shell("unsquashfs -d mounted sirenemp.img"), 0) << output;

    const std::string image = directory + "mounted/siren.bin";
    void* const siren = dlopen((directory + "siren.so").c_str(), RTLD_NOW);
    ASSERT_NE(siren, nullptr) << dlerror();
    const auto checkVersion =
        reinterpret_cast<int (*)(const char*, int*)>(dlsym(siren, "checkVersion"));
    const auto doUpdate =
        reinterpret_cast<int (*)(const char*, unsigned long)>(dlsym(siren, "doUpdate"));
    int need = 0;
    EXPECT_EQ(checkVersion("2.1", &need), 0);
    EXPECT_EQ(need, 1);
    EXPECT_EQ(doUpdate(image.c_str(), 0), 0);
    EXPECT_EQ(readAll("/var/lib/siren.firmware"), "firmware 2.1 of the siren\n");
    EXPECT_EQ(readAll("/var/lib/siren.version"), "2.1");

    fs::resize_file(image, 1024 * 1024 + 1);
    EXPECT_EQ(doUpdate(image.c_str(), 0), -1) << "larger than the component";
    dlclose(siren);
}

}  // namespace
}  // namespace quillon::test
