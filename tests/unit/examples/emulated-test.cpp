// The emulated module: what the JSON beside it says is what it does.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>

#include "fw-update-plugin.h"
#include "support/files.h"
#include "support/process.h"

namespace quillon::test {
namespace {

namespace fs = std::filesystem;

class Emulated : public ::testing::Test
{
protected:
    Emulated()
    {
        std::string pattern = fs::temp_directory_path() / "emulated-XXXXXX";
        directory = mkdtemp(pattern.data());
        fs::remove_all("/var/lib/quillon/examples/gauge");
        fs::copy_file(MODULES "emulated.so", directory + "/gauge.so");
        library = dlopen((directory + "/gauge.so").c_str(), RTLD_NOW);
        if (library == nullptr) {
            throw std::runtime_error(dlerror());
        }
    }
    ~Emulated() override
    {
        dlclose(library);
        fs::remove_all(directory);
        fs::remove_all("/var/lib/quillon/examples/gauge");
    }

    void behave(const std::string& json) const { writeFile(directory + "/gauge.json", json); }

    template <typename Signature>
    Signature* entry(const char* name) const
    {
        return reinterpret_cast<Signature*>(dlsym(library, name));
    }

    std::string version() const
    {
        char text[FW_PLUGIN_TEXT_SIZE] = {};
        EXPECT_EQ(entry<decltype(getActiveVersion)>("getActiveVersion")(text), 0);
        return text;
    }

    bool needs(const std::string& version) const
    {
        int need = -1;
        EXPECT_EQ(entry<decltype(checkVersion)>("checkVersion")(version.c_str(), &need), 0);
        return need == 1;
    }

    int flash(const std::string& payload) const
    {
        const auto* const data = reinterpret_cast<const unsigned char*>(payload.data());
        return entry<decltype(doUpdate_decryption)>("doUpdate_decryption")(
            data, static_cast<int>(payload.size()));
    }

    std::string directory;
    void* library = nullptr;
};

TEST_F(Emulated, WithoutSettingsIsAGoodModuleOfItsFilesName)
{
    char text[FW_PLUGIN_TEXT_SIZE] = {};
    EXPECT_EQ(entry<decltype(getEMPID)>("getEMPID")(text), 0);
    EXPECT_STREQ(text, "gaugeemp");
    EXPECT_EQ(version(), "1.0");
    EXPECT_TRUE(needs("2.0"));
    EXPECT_EQ(flash("firmware"), 0);
    EXPECT_EQ(version(), "2.0");
    EXPECT_FALSE(needs("2.0"));
    EXPECT_EQ(readAll("/var/lib/quillon/examples/gauge/firmware.bin"), "firmware");
}

TEST_F(Emulated, IsWhoItsSettingsSay)
{
    behave(R"({"identifier": "otheremp", "version": "7", "expectedTime": 42})");
    char text[FW_PLUGIN_TEXT_SIZE] = {};
    int seconds = 0;
    EXPECT_EQ(entry<decltype(getEMPID)>("getEMPID")(text), 0);
    EXPECT_STREQ(text, "otheremp");
    EXPECT_EQ(version(), "7");
    EXPECT_EQ(entry<decltype(getExpectedTime)>("getExpectedTime")(&seconds), 0);
    EXPECT_EQ(seconds, 42);
}

TEST_F(Emulated, FailsAtItsByteAndKeepsTheVersion)
{
    behave(R"({"failAtByte": 4, "speed": 0})");
    ASSERT_TRUE(needs("2.0"));
    EXPECT_EQ(flash("firmware"), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(version(), "1.0");

    behave(R"({"failAtByte": 100})");
    ASSERT_TRUE(needs("2.0"));
    EXPECT_EQ(flash("firmware"), 0) << "it has fewer bytes";
}

TEST_F(Emulated, FailsAfterItsLastByteWithItsResult)
{
    behave(R"({"result": 7, "speed": 0})");
    ASSERT_TRUE(needs("2.0"));
    EXPECT_EQ(flash("firmware"), 7);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(version(), "1.0");
}

TEST_F(Emulated, NeedsWhatItsSettingsSay)
{
    behave(R"({"need": 0})");
    EXPECT_FALSE(needs("2.0"));

    behave(R"({"need": -1})");
    int need = 5;
    EXPECT_EQ(entry<decltype(checkVersion)>("checkVersion")("2.0", &need), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(need, 5);
}

TEST_F(Emulated, CrashesAtItsByte)
{
    behave(R"({"crashAtByte": 0})");
    ASSERT_TRUE(needs("2.0"));
    EXPECT_EXIT(flash("firmware"), testing::KilledBySignal(SIGABRT), "");
}

TEST_F(Emulated, HangsAtItsByteAndAnswersQueriesMeanwhile)
{
    behave(R"({"hangAtByte": 5000, "speed": 0})");
    const int status = inChild([&] {
        needs("2.0");
        std::thread([&] { flash(std::string(10000, 'x')); }).detach();
        unsigned int percent = 0;
        while (percent == 0) {  // the piece before the byte has passed
            entry<decltype(getUpdateProgress)>("getUpdateProgress")(&percent);
        }
        return version() == "1.0" && percent < 99 ? 7 : 1;
    });
    EXPECT_EQ(status, 7);
}

TEST_F(Emulated, LiesAboutItsVersion)
{
    behave(R"({"claims": "9.9"})");
    EXPECT_EQ(version(), "9.9");
    ASSERT_TRUE(needs("2.0"));
    EXPECT_EQ(flash("firmware"), 0);
    EXPECT_EQ(version(), "9.9");
    EXPECT_EQ(readAll("/var/lib/quillon/examples/gauge/version"), "2.0");
}

TEST_F(Emulated, KeepsToItsSpeed)
{
    behave(R"({"speed": 10000})");
    ASSERT_TRUE(needs("2.0"));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(flash(std::string(3000, 'x')), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
}

TEST_F(Emulated, TakesItsSecondsWhateverItsBytes)
{
    for (const std::size_t bytes : {1U, 9000U}) {
        behave(R"({"seconds": 0.3, "speed": 0})");
        ASSERT_TRUE(needs("2." + std::to_string(bytes)));
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(flash(std::string(bytes, 'x')), 0);
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
    }
}

TEST_F(Emulated, FailsWithSettingsThatCannotBeRead)
{
    for (const char* text : {"{", "[]", R"({"version": {}})"}) {
        behave(text);
        char buffer[FW_PLUGIN_TEXT_SIZE] = {};
        EXPECT_EQ(entry<decltype(getActiveVersion)>("getActiveVersion")(buffer), -1) << text;
        EXPECT_EQ(errno, EINVAL) << text;
    }
}

}  // namespace
}  // namespace quillon::test
