// The test plug-in in a process without the recording platform, as the real daemon is one.

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "fw-update-plugin.h"
#include "platform/verifier.h"
#include "support/files.h"

namespace quillon::test {
namespace {

namespace fs = std::filesystem;

void* openCopy(const std::string& library, const std::string& path)
{
    fs::create_directories(fs::path(path).parent_path());
    fs::copy_file(fs::read_symlink("/proc/self/exe").parent_path() / "modules" / library, path);
    return dlopen(path.c_str(), RTLD_NOW);
}

class TestModule : public ::testing::Test
{
protected:
    TestModule() : library(openCopy("full.so", "/usr/fwupdate/controls/alpha.so"))
    {
        // On a device that runs in place an earlier test may have left these.
        fs::remove("/etc/quillon-test/alpha.conf");
        fs::remove("/tmp/quillon-test-alpha.log");
    }

    template <typename Signature>
    Signature* entry(const char* name)
    {
        auto* found = reinterpret_cast<Signature*>(dlsym(library, name));
        if (found == nullptr) {
            throw std::runtime_error(std::string("no entry ") + name);
        }
        return found;
    }

    void* const library;
};

TEST_F(TestModule, HasItsDefaultsAndLogsItsCalls)
{
    char argument[] = "";
    char text[FW_PLUGIN_TEXT_SIZE] = {};
    int number = -1;
    int seconds = 0;

    EXPECT_EQ(entry<decltype(setContext)>("setContext")("alpha", CALLER_SERVICE, argument), 0);
    EXPECT_EQ(entry<decltype(getEMPID)>("getEMPID")(text), 0);
    EXPECT_STREQ(text, "alphaemp");
    EXPECT_EQ(entry<decltype(getActiveVersion)>("getActiveVersion")(text), 0);
    EXPECT_STREQ(text, "1.0");
    EXPECT_EQ(entry<decltype(checkVersion)>("checkVersion")("2.0", &number), 0);
    EXPECT_EQ(number, 0);
    EXPECT_EQ(entry<decltype(getExpectedTime)>("getExpectedTime")(&seconds), 0);
    EXPECT_EQ(seconds, 10);

    EXPECT_EQ(readAll("/tmp/quillon-test-alpha.log"),
              "alpha.setContext(\"alpha\", 2, \"\")\nalpha.getEMPID()\nalpha.getActiveVersion()\n"
              "alpha.checkVersion(\"2.0\", need -1)\nalpha.getExpectedTime(0)\n");
}

TEST_F(TestModule, DoesWhatItsFileSays)
{
    writeFile("/etc/quillon-test/alpha.conf",
              "empid=tunerempA1\nversion=1.7\nneed=1\nseconds=33\nprogress=44\n"
              "capture=/tmp/payload\ndoUpdate_decryption.result=-5\n"
              "doUpdate_decryption.errno=28\ncheckVersion.result=3\n");
    char text[FW_PLUGIN_TEXT_SIZE] = {};
    int number = 0;
    unsigned int progress = 0;
    const unsigned char payload[] = {'a', 'b', 'c'};

    entry<decltype(getEMPID)>("getEMPID")(text);
    EXPECT_STREQ(text, "tunerempA1");
    entry<decltype(getActiveVersion)>("getActiveVersion")(text);
    EXPECT_STREQ(text, "1.7");
    EXPECT_EQ(entry<decltype(checkVersion)>("checkVersion")("2.0", &number), 3);
    EXPECT_EQ(number, 1);
    entry<decltype(getExpectedTime)>("getExpectedTime")(&number);
    EXPECT_EQ(number, 33);
    entry<decltype(getUpdateProgress)>("getUpdateProgress")(&progress);
    EXPECT_EQ(progress, 44U);
    EXPECT_EQ(entry<decltype(doUpdate_decryption)>("doUpdate_decryption")(payload, 3), -5);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(readAll("/tmp/payload"), "abc");
}

TEST_F(TestModule, MayRaise)
{
    writeFile("/etc/quillon-test/alpha.conf",
              "allUpdateDone.effect=throw\ndoUpdate.effect=throw-unknown\n");

    EXPECT_THROW(entry<decltype(allUpdateDone)>("allUpdateDone")(), std::runtime_error);
    EXPECT_THROW(entry<decltype(doUpdate)>("doUpdate")("path", 0), int);
}

TEST_F(TestModule, MayCrash)
{
    writeFile("/etc/quillon-test/alpha.conf", "doUpdate.effect=crash\n");

    EXPECT_DEATH(entry<decltype(doUpdate)>("doUpdate")("path", 0), "");
}

TEST(TestVerifier, AnswersWhatItsFileSays)
{
    void* library = openCopy("verifier.so", "/usr/lib/libkUEPUser.so");
    ASSERT_NE(library, nullptr);
    const auto verify = reinterpret_cast<decltype(&verifyFile)>(dlsym(library, "verifyFile"));
    ASSERT_NE(verify, nullptr);

    EXPECT_EQ(verify(nullptr, "/image", "UserCaller"), 1);
    writeFile("/etc/quillon-test/verifier.conf", "0\n");
    EXPECT_EQ(verify(nullptr, "/image", "UserCaller"), 0);
}

}  // namespace
}  // namespace quillon::test
