// Flashing into files: what is written, how fast, and what happens when it cannot be.

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <thread>

#include "support/wait.h"
#include "unit/examples/example-module.h"

namespace quillon::test {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

class Flash : public FirmwareModules
{
protected:
    /// Starts an update of two seconds and waits until it is under way.
    std::thread startSlowUpdate(const std::string& payload)
    {
        module.configure("speed=" + std::to_string(payload.size() / 2) + "\n");
        EXPECT_EQ(offer("2.0"), 0);
        std::thread update([this, payload] { EXPECT_EQ(flash(payload), 0); });
        waitFor("a tenth of the update", [this] { return progress() >= 10; });
        return update;
    }
};

TEST_P(Flash, WritesThePayloadAndRecordsTheOfferedVersion)
{
    const std::string payload("bytes\0of a firmware", 19);
    ASSERT_EQ(offer("2.0"), 0);
    EXPECT_EQ(flash(payload), 0);

    EXPECT_EQ(module.file("firmware.bin"), payload);
    EXPECT_EQ(activeVersion(), "2.0");
    EXPECT_EQ(progress(), 100U);
    EXPECT_FALSE(std::filesystem::exists(module.state + "firmware.bin.part"));
}

TEST_P(Flash, AcceptsAnEmptyPayload)
{
    ASSERT_EQ(offer("2.0"), 0);
    EXPECT_EQ(CALL(module, doUpdate_decryption)(nullptr, 0), 0);

    EXPECT_TRUE(std::filesystem::exists(module.state + "firmware.bin"));
    EXPECT_EQ(module.file("firmware.bin"), "");
    EXPECT_EQ(activeVersion(), "2.0");
}

TEST_P(Flash, WritesALargePayloadWhole)
{
    module.configure("speed=0\n");
    std::string payload(1000000, '\0');
    for (std::size_t i = 0; i < payload.size(); ++i) {
        payload[i] = static_cast<char>(i * 31 + i / 4096);
    }
    ASSERT_EQ(offer("2.0"), 0);
    EXPECT_EQ(flash(payload), 0);
    EXPECT_EQ(module.file("firmware.bin"), payload);
}

TEST_P(Flash, KeepsToTheConfiguredSpeed)
{
    module.configure("speed=10000\n");
    ASSERT_EQ(offer("2.0"), 0);

    const auto start = Clock::now();
    EXPECT_EQ(flash(std::string(5000, 'x')), 0);
    const auto taken = Clock::now() - start;
    EXPECT_GE(taken, milliseconds(490));
    EXPECT_LT(taken, milliseconds(5000));
}

TEST_P(Flash, AnswersQueriesWhileItRuns)
{
    std::thread update = startSlowUpdate(std::string(5000, 'x'));

    EXPECT_LT(progress(), 100U);
    EXPECT_EQ(activeVersion(), "0");
    int need = -1;
    EXPECT_EQ(offer("3.0", &need), 0);
    EXPECT_EQ(need, 1);
    int seconds = 0;
    EXPECT_EQ(CALL(module, getExpectedTime)(&seconds), 0);
    update.join();
    EXPECT_EQ(activeVersion(), "2.0") << "the version offered when the update began";
}

TEST_P(Flash, RefusesASecondUpdateWhileOneRuns)
{
    std::thread update = startSlowUpdate(std::string(5000, 'x'));

    EXPECT_EQ(flash("another"), -1);
    EXPECT_EQ(errno, EBUSY);
    update.join();
    EXPECT_EQ(module.file("firmware.bin"), std::string(5000, 'x'));
}

TEST_P(Flash, NeedsAnOfferedVersion)
{
    EXPECT_EQ(flash("payload"), -1);
    EXPECT_EQ(errno, ENODATA);
    EXPECT_FALSE(std::filesystem::exists(module.state + "firmware.bin"));
}

TEST_P(Flash, RefusesANegativeLength)
{
    ASSERT_EQ(offer("2.0"), 0);
    EXPECT_EQ(CALL(module, doUpdate_decryption)(nullptr, -1), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_P(Flash, OntoABrokenDiskFailsAndKeepsTheVersion)
{
    std::filesystem::create_directories(module.state + "firmware.bin.part");
    ASSERT_EQ(offer("2.0"), 0);
    EXPECT_EQ(flash("payload"), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(activeVersion(), "0");

    std::filesystem::remove(module.state + "firmware.bin.part");
    std::filesystem::create_directories(module.state + "firmware.bin/in the way");
    EXPECT_EQ(flash("payload"), -1);
    EXPECT_EQ(activeVersion(), "0");
}

TEST_P(Flash, IntoAFileInPlaceOfItsDirectoryFails)
{
    std::filesystem::create_directories("/var/lib/quillon/examples");
    std::ofstream(module.state.substr(0, module.state.size() - 1)) << "no directory";
    ASSERT_EQ(offer("2.0"), 0);

    EXPECT_EQ(flash("payload"), -1);
    EXPECT_EQ(errno, ENOTDIR);
    std::filesystem::remove(module.state.substr(0, module.state.size() - 1));
}

TEST_P(Flash, OntoAFullDiskFailsAndKeepsTheOldFirmware)
{
    ASSERT_EQ(offer("2.0"), 0);
    ASSERT_EQ(flash("old"), 0);
    std::filesystem::create_symlink("/dev/full", module.state + "firmware.bin.part");

    ASSERT_EQ(offer("3.0"), 0);
    EXPECT_EQ(flash("new"), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_FALSE(std::filesystem::is_symlink(module.state + "firmware.bin.part"));
    EXPECT_EQ(module.file("firmware.bin"), "old");
    EXPECT_EQ(activeVersion(), "2.0");
}

INSTANTIATE_TEST_SUITE_P(Of, Flash, kFirmwareModules, nameOf);

}  // namespace
}  // namespace quillon::test
