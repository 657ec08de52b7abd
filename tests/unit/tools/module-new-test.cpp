// quillon-module new: a project under a name of one's own.

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "support/files.h"
#include "support/texts.h"
#include "unit/tools/module-program.h"

namespace {

namespace fs = std::filesystem;

using quillon::test::expectText;
using quillon::test::like;
using quillon::test::outputOf;
using quillon::test::readAll;
using quillon::test::Result;

class ModuleNew : public ModuleCheck
{
protected:
    ModuleNew() { fs::current_path(directory); }
    ~ModuleNew() override { fs::current_path("/"); }
};

TEST_F(ModuleNew, PutsTheNameWhereTheTemplateHasItsOwn)
{
    const Result made = runModule({"new", "pump"});

    ASSERT_EQ(made.status, 0) << made.err;
    expectText(made.out, like("made pump: build it with\n    cd pump && cmake -B build *"));
    EXPECT_EQ(outputOf("grep -ril lamp pump; find pump -iname '*lamp*'; true"), "");
    expectText(readAll("pump/module.cpp"), like("*kIdentifier[] = \"pumpemp\"*"));
    EXPECT_TRUE(fs::exists("pump/package/pump.bin"));
    EXPECT_EQ(outputOf("ls -A | grep '^\\.' ; true"), "");
}

TEST_F(ModuleNew, HasAPackageThatFitsItsInformation)
{
    ASSERT_EQ(runModule({"new", "lantern"}).status, 0);
    const Json::Value module = check({install("faulty-none")},
                                     {"--filter", "info", "--info", "lantern/package/info.json",
                                      "--image", "lantern/package/lantern.bin"},
                                     0);
    EXPECT_EQ(module["kept"], 1);
}

TEST_F(ModuleNew, RefusesWhatIsThere)
{
    fs::create_directory("pump");
    fs::create_symlink("nowhere", "link");
    for (const char* name : {"pump", "link"}) {
        const Result result = runModule({"new", name});
        EXPECT_EQ(result.status, 3);
        EXPECT_EQ(result.err, "quillon-module: " + std::string(name) +
                                  " exists already: choose another name, or remove it\n");
    }
    EXPECT_TRUE(fs::is_empty("pump"));
}

TEST_F(ModuleNew, RefusesANameThatNoModuleCanHave)
{
    for (const std::string& name :
         {std::string("two words"), std::string("../up"), std::string("a-b"), std::string("9lives"),
          std::string("\xc3\xa4"), std::string(61, 'a'), std::string()}) {
        const Result result = runModule({"new", name});
        EXPECT_EQ(result.status, 2) << name;
        expectText(result.err, like("quillon-module: no name for a module: *: take 1 to 60*"));
    }
    expectText(runModule({"new", "template"}).err, like("*contains \"emp\"*without it\n"));
    EXPECT_EQ(outputOf("ls -A"), "lantern.bin\n");
}

TEST_F(ModuleNew, LeavesNothingWhereItCannotWrite)
{
    if (geteuid() == 0) {
        GTEST_SKIP() << "root can write everywhere";
    }
    fs::create_directory("closed");
    fs::current_path("closed");
    fs::permissions(".", fs::perms(0555));
    const Result result = runModule({"new", "pump"});
    fs::permissions(".", fs::perms(0755));
    EXPECT_EQ(result.status, 3);
    expectText(result.err, like("*no directory can be made here: Permission denied\n"));
    EXPECT_TRUE(fs::is_empty("."));
}

TEST_F(ModuleNew, SaysWhatIsMissingWithoutTheTemplate)
{
    fs::create_directory("bin");
    fs::copy_file(MODULE_PROGRAM, "bin/quillon-module");
    const Result result = quillon::test::run({directory + "/bin/quillon-module", "new", "pump"});
    EXPECT_EQ(result.status, 3);
    expectText(result.err, like("*the template is not in *: install the development kit*"));
    EXPECT_FALSE(fs::exists("pump"));
}

}  // namespace
