// The development kit as its users find it: installed to a directory, without the source tree.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "support/files.h"
#include "support/process.h"
#include "support/texts.h"

using ::testing::ContainsRegex;

namespace quillon::test {
namespace {

namespace fs = std::filesystem;

constexpr char kClient[] = R"(
#include <quillon/client.h>

#include <iostream>

int main()
{
    quillon::Client client;
    const quillon::Error error = client.connect();
    std::cout << (error.code == quillon::ErrorCode::kNoService ? "no service" : error.text) << "\n";
}
)";

constexpr char kPlatformUser[] = R"(
#include "platform/system-info.h"

#include <cstdlib>
#include <iostream>

int main()
{
    char* model = nullptr;
    std::cout << system_info_get_value_string(128, &model) << " " << (model != nullptr) << "\n";
    std::free(model);
}
)";

std::string withoutBlanks(std::string text)
{
    text.erase(std::remove_if(text.begin(), text.end(),
                              [](unsigned char c) { return std::isspace(c) != 0; }),
               text.end());
    return text;
}

class DevKit : public ::testing::Test
{
protected:
    void SetUp() override
    {
        std::string pattern = (fs::temp_directory_path() / "dev-kit-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        directory = pattern + "/";
        kit = directory + "kit";
        prefix = kit + INSTALL_PREFIX;
        ASSERT_EQ(shell("DESTDIR=" + kit +
                        " " CMAKE_PROGRAM " --install " BUILD_DIRECTORY " --component dev"),
                  0)
            << output;
        setenv("PKG_CONFIG_SYSROOT_DIR", kit.c_str(), 1);
        setenv("PKG_CONFIG_PATH", (prefix + "/" INSTALL_LIBDIR "/pkgconfig").c_str(), 1);
        setenv("CMAKE_PREFIX_PATH", prefix.c_str(), 1);
    }

    void TearDown() override { fs::remove_all(directory); }

    int shell(const std::string& command)
    {
        const Result result = runInShell("cd '" + directory + "' && {\n" + command + "\n} 2>&1");
        output = result.out;
        return result.status;
    }

    /// Configures and builds directory/NAME in directory/NAME/build.
    int build(const std::string& name)
    {
        return shell("cd " + name +
                     " && " CMAKE_PROGRAM " -B build -DCMAKE_CXX_COMPILER=" CXX_COMPILER
                     " -DCMAKE_C_COMPILER=" C_COMPILER " && " CMAKE_PROGRAM " --build build");
    }

    /// As build, of a project made here: one program from one source, linked to a target of the
    /// kit.
    int buildProgram(const std::string& source, const std::string& target)
    {
        fs::create_directory(directory + "program");
        std::ofstream(directory + "program/main.cpp") << source;
        std::ofstream(directory + "program/CMakeLists.txt")
            << "cmake_minimum_required(VERSION 3.25)\n"
               "project(program LANGUAGES CXX)\n"
               "find_package(quillon 0.1 REQUIRED)\n"
               "add_executable(program main.cpp)\n"
               "target_compile_features(program PRIVATE cxx_std_17)\n"
               "target_link_libraries(program PRIVATE "
            << target << ")\n";
        return build("program");
    }

    int buildTemplate()
    {
        fs::copy(prefix + "/share/quillon/module-template", directory + "lamp",
                 fs::copy_options::recursive);
        return build("lamp");
    }

    /// Another package of the same device brings it.
    void installPlatformLibrary()
    {
        fs::copy_file(PLATFORM_LIBRARY, prefix + "/" INSTALL_LIBDIR "/" PLATFORM_SONAME);
    }

    std::string directory;
    std::string kit;     // what would be the root directory
    std::string prefix;  // where the kit is in it
    std::string output;
};

TEST_F(DevKit, ItsHeadersCompileAlone)
{
    const std::string headers = prefix + "/include/quillon";
    int count = 0;
    for (const auto& entry : fs::recursive_directory_iterator(headers)) {
        if (!entry.is_regular_file()) {
            continue;
        }
        ++count;
        const std::string flags = " -Wall -Wextra -Wpedantic -Werror -fsyntax-only -I" + headers;
        const std::string name = entry.path().filename();
        std::ofstream(directory + "user.c") << "#include \"" + entry.path().string() + "\"\n";
        EXPECT_EQ(shell(CXX_COMPILER " -std=c++17 -x c++" + flags + " user.c"), 0) << output;
        if (name != "client.h" && name != "app-binary-manager.h") {  // these two are C++
            EXPECT_EQ(shell(C_COMPILER " -std=c11" + flags + " user.c"), 0) << output;
        }
    }
    EXPECT_EQ(count, 13);
}

TEST_F(DevKit, ItsTemplateBecomesAModuleThatPassesItsOwnTest)
{
    ASSERT_EQ(buildTemplate(), 0) << output;
    expectNoText(output, like("*warning*"));
    EXPECT_EQ(shell("cd lamp/build && ctest --output-on-failure"), 0) << output;
    expectText(output, like("*100% tests passed, 0 tests failed out of 1*"));
}

TEST_F(DevKit, AProjectOfAnotherNamePassesItsOwnTestAndKeepsEveryClause)
{
    ASSERT_EQ(shell(BUILD_DIRECTORY "/bin/quillon-module new pump"), 0) << output;
    ASSERT_EQ(build("pump"), 0) << output;
    expectNoText(output, like("*warning*"));
    EXPECT_EQ(shell("cd pump/build && ctest --output-on-failure"), 0) << output;
    EXPECT_EQ(shell(BUILD_DIRECTORY "/bin/quillon-module check pump/build/pump.so --image "
                                    "pump/package/pump.bin --info pump/package/info.json"),
              0)
        << output;
    expectText(output, like("*: 46 kept, 0 broken, 0 not offered, 1 not checked\n"));
}

TEST_F(DevKit, HasTheEmulatedModuleWhereTheInstalledToolLooks)
{
    fs::create_directories(prefix + "/bin");
    fs::copy_file(BUILD_DIRECTORY "/bin/quillon-module", prefix + "/bin/quillon-module");
    writeFile(directory + "run.jsonl", R"({"event":"modules","modules":[{"name":"pump"}]})");
    EXPECT_EQ(shell(prefix + "/bin/quillon-module emulate run.jsonl replay"), 0) << output;
    EXPECT_TRUE(fs::exists(directory + "replay/pump.so"));
}

TEST_F(DevKit, ItsTemplateExportsTheNineEntriesAndNothingElse)
{
    ASSERT_EQ(buildTemplate(), 0) << output;
    ASSERT_EQ(shell(NM_PROGRAM
                    " --dynamic --defined-only --format=just-symbols lamp/build/lamp.so | sort"),
              0);
    EXPECT_EQ(output,
              "allUpdateDone\ncheckVersion\ndoUpdate\ndoUpdate_decryption\ngetActiveVersion\n"
              "getEMPID\ngetExpectedTime\ngetUpdateProgress\nsetContext\n");
}

TEST_F(DevKit, ItsTemplateIsLoadedAsAModule)
{
    ASSERT_EQ(buildTemplate(), 0) << output;
    fs::create_directories("/usr/fwupdate/controls");
    fs::copy_file(directory + "lamp/build/lamp.so", "/usr/fwupdate/controls/lamp.so",
                  fs::copy_options::overwrite_existing);
    EXPECT_EQ(shell(BUILD_DIRECTORY "/bin/quillonctl modules list"), 0) << output;
    EXPECT_THAT(output, ContainsRegex("lamp +0 +no package"));
}

TEST_F(DevKit, ItsTemplatesPackageIsTheOneThatTheImageToolMakes)
{
    if (shell("command -v mksquashfs unsquashfs") != 0) {
        GTEST_SKIP() << "squashfs-tools are not installed";
    }
    const std::string package = prefix + "/share/quillon/module-template/package";
    ASSERT_EQ(
        shell(BUILD_DIRECTORY "/bin/quillon-image package --name lampemp --version 1.0 --payload " +
              package + "/lamp.bin --expected-time 5 && unsquashfs -d made lampemp.img"),
        0)
        << output;
    EXPECT_EQ(withoutBlanks(readAll(package + "/info.json")),
              withoutBlanks(readAll(directory + "made/info.json")));
}

TEST_F(DevKit, AClientBuildsByFindPackage)
{
    ASSERT_EQ(buildProgram(kClient, "quillon::client"), 0) << output;
    EXPECT_EQ(shell("program/build/program"), 0);
    EXPECT_EQ(output, "no service\n");
}

TEST_F(DevKit, AClientBuildsByPkgConfig)
{
    std::ofstream(directory + "client.cpp") << kClient;
    ASSERT_EQ(shell(CXX_COMPILER " -std=c++17 client.cpp -o client "
                                 "$(pkg-config --cflags --libs quillon-client)"),
              0)
        << output;
    EXPECT_EQ(shell("./client"), 0);
    EXPECT_EQ(output, "no service\n");
}

TEST_F(DevKit, AModuleBuildsByPkgConfig)
{
    EXPECT_EQ(shell("cp " + prefix +
                    "/share/quillon/module-template/*.* . && " CXX_COMPILER
                    " -std=c++17 -Wall -Wextra -Werror -fPIC -shared module.cpp component.cpp "
                    "-o lamp.so $(pkg-config --cflags quillon-plugin) "
                    "-Wl,-z,defs -Wl,--version-script=module.map"),
              0)
        << output;
    ASSERT_EQ(shell("pkg-config --variable=modulesdir quillon-plugin"), 0);
    expectText(output, like("*/usr/fwupdate/controls\n*"));
}

TEST_F(DevKit, APlatformsUserLinksTheLibraryWhereItIsInstalled)
{
    installPlatformLibrary();
    ASSERT_EQ(buildProgram(kPlatformUser, "quillon::platform"), 0) << output;
    ASSERT_EQ(shell("readelf -d program/build/program"), 0);
    expectText(output, like("*[" PLATFORM_SONAME "]*"));

    EXPECT_EQ(shell(CXX_COMPILER " -std=c++17 program/main.cpp -o user "
                                 "$(pkg-config --cflags --libs quillon-platform)"),
              0)
        << output;
}

TEST_F(DevKit, APlatformsMakerHasTheHeadersWithoutTheLibrary)
{
    EXPECT_EQ(
        buildProgram("#include <platform/log.h>\n"
                     "int __dlog_print(int, int, const char*, const char*, ...) { return 0; }\n"
                     "int main() { return __dlog_print(2, 4, \"\", \"\"); }\n",
                     "quillon::platform"),
        0)
        << output;
    EXPECT_EQ(shell("program/build/program"), 0);
}

TEST_F(DevKit, IsNotTakenForANewerOne)
{
    fs::create_directory(directory + "newer");
    std::ofstream(directory + "newer/CMakeLists.txt") << "cmake_minimum_required(VERSION 3.25)\n"
                                                         "project(newer LANGUAGES NONE)\n"
                                                         "find_package(quillon 99.0 REQUIRED)\n";
    EXPECT_NE(build("newer"), 0);
    expectText(output, like("*compatible with requested version \"99.0\"*"));
}

}  // namespace
}  // namespace quillon::test
