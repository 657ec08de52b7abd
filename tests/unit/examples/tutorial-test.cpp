// docs/module-tutorial.md, followed word for word where it needs no systemd: its module is written,
// built, checked and updated by the real service with the page's own commands. The booted device
// follows all of the page.

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "support/files.h"
#include "support/process.h"
#include "support/texts.h"

namespace quillon::test {
namespace {

namespace fs = std::filesystem;

/// What a package would have installed: the header's place.
constexpr char kPackage[] =
    "Name: quillon-plugin\nDescription: header\nVersion: 0\nCflags: -I" SOURCE_DIRECTORY
    "/include\n";

class Tutorial : public ::testing::Test
{
protected:
    void SetUp() override
    {
        std::string pattern = (fs::temp_directory_path() / "tutorial-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        directory = pattern + "/";
        page = readAll(SOURCE_DIRECTORY "/docs/module-tutorial.md");

        fs::create_directory(directory + "installed");
        writeFile(directory + "installed/quillon-plugin.pc", kPackage);
        // The test is on a device of its own already.
        writeFile(directory + "installed/quillon-device", "#!/bin/sh\nshift 2\nexec \"$@\"\n");
        fs::permissions(directory + "installed/quillon-device", fs::perms(0755));
        fs::copy_file(BUILD_DIRECTORY "/lib/libkUEPUser.so", "/usr/lib/libkUEPUser.so",
                      fs::copy_options::overwrite_existing);
        setenv("PKG_CONFIG_PATH", (directory + "installed").c_str(), 1);
        setenv("PATH", (directory + "installed:" BUILD_DIRECTORY "/bin:" + path).c_str(), 1);

        writeFile(directory + "siren.c", blockWith("c", "getEMPID"));
        ASSERT_EQ(shell(blockWith("sh", "-o siren.so")), 0) << output;
        ASSERT_EQ(output, "") << "it compiles without a warning";
    }

    void TearDown() override
    {
        setenv("PATH", path.c_str(), 1);
        fs::remove_all(directory);
    }

    /// @return the page's first block of a language with a text
    std::string blockWith(const std::string& language, const std::string& text) const
    {
        const std::string opening = "```" + language + "\n";
        for (std::size_t at = page.find(opening); at != std::string::npos;
             at = page.find(opening, at)) {
            at += opening.size();
            const std::string block = page.substr(at, page.find("\n```\n", at) + 1 - at);
            if (block.find(text) != std::string::npos) {
                return block;
            }
        }
        ADD_FAILURE() << "no block with " << text;
        return "false";
    }

    int shell(const std::string& command)
    {
        const Result result = runInShell("cd '" + directory + "' && {\n" + command + "\n} 2>&1");
        output = result.out;
        return result.status;
    }

    const std::string path = std::getenv("PATH");
    std::string directory;
    std::string page;
    std::string output;
};

TEST_F(Tutorial, ItsModuleIsUpdatedByTheService)
{
    ASSERT_EQ(shell(blockWith("sh", "keygen")), 0) << output;

    EXPECT_EQ(shell(blockWith("sh", "try.sh")), 0) << output << readAll(directory + "service.log");
    expectText(output, like("*The update finished after *"));  // 0 or 1 s: not our business
    expectText(output, like("* s\nLooking once more at the stick\ninstalled: 2.0\n"));
}

TEST_F(Tutorial, ItsModuleBreaksNoClause)
{
    EXPECT_EQ(shell(blockWith("sh", "--only-failed")), 0);
    expectText(output, like("*/siren.so: 42 kept, 0 broken, 2 not offered, 3 not checked\n"));
}

TEST_F(Tutorial, ItsPackageHoldsWhatItsModuleTakes)
{
    if (shell("command -v mksquashfs unsquashfs") != 0) {
        GTEST_SKIP() << "squashfs-tools are not installed";
    }
    ASSERT_EQ(shell(blockWith("sh", "quillon-image package")), 0) << output;
    expectText(output, like("*sirenemp.img: version 2.1, *"));
    ASSERT_EQ(shell("unsquashfs -d mounted /opt/usr/apps/appbinarymanager/sirenemp.img"), 0)
        << output;

    const std::string image = directory + "mounted/siren.bin";
    const std::string state = "/var/lib/quillon/modules/siren";
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
    EXPECT_EQ(readAll(state + ".firmware"), "firmware 2.1 of the siren\n");
    EXPECT_EQ(readAll(state + ".version"), "2.1");

    fs::resize_file(image, 1024 * 1024 + 1);
    EXPECT_EQ(doUpdate(image.c_str(), 0), -1) << "larger than the component";
    dlclose(siren);
}

}  // namespace
}  // namespace quillon::test
