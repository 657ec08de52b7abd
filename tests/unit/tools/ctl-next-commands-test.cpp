// Which commands quillonctl names: those of whatever manages the system's services.

#include <grp.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "support/files.h"
#include "tools/quillonctl/next-commands.h"

using namespace quillon;

namespace {

namespace fs = std::filesystem;
using quillon::test::writeFile;

constexpr const char* kSystemd = "/run/systemd/system";
constexpr const char* kInitScript = "/etc/init.d/quillon";
constexpr const char* kLog = "/var/log/quillon.log";

/// Also a machine on which a device has no paths of its own is left as it was.
class CtlNextCommands : public testing::Test
{
protected:
    void SetUp() override
    {
        for (const char* path : {kSystemd, kInitScript, kLog}) {
            if (fs::exists(path)) {
                GTEST_SKIP() << path << " is this machine's";
            }
        }
    }

    void TearDown() override
    {
        if (!IsSkipped()) {
            fs::remove(kSystemd);
            fs::remove(kInitScript);
            fs::remove(kLog);
        }
    }
};

TEST_F(CtlNextCommands, AreSystemdsWhereItRuns)
{
    fs::create_directories(kSystemd);
    writeFile(kInitScript, "");
    writeFile(kLog, "");

    EXPECT_TRUE(hasSystemd());
    EXPECT_EQ(startService(), "systemctl start quillon");
    EXPECT_EQ(restartService(), "systemctl restart quillon");
    EXPECT_EQ(restartMountingHelper(), "systemctl restart quillon-privileged");
    EXPECT_EQ(serviceLog(), "journalctl -b -u quillon");
    EXPECT_EQ(logOf("FWUPDATE"), "journalctl -b -t FWUPDATE");
}

TEST_F(CtlNextCommands, AreThoseOfTheInitScriptWhereThereIsOne)
{
    writeFile(kInitScript, "");
    writeFile(kLog, "");

    EXPECT_FALSE(hasSystemd());
    EXPECT_EQ(startService(), "/etc/init.d/quillon start");
    EXPECT_EQ(restartService(), "/etc/init.d/quillon stop && /etc/init.d/quillon start");
    EXPECT_EQ(serviceLog(), "tail -n 50 /var/log/quillon.log");
    EXPECT_EQ(logOf("FWUPDATE"), "standard error");
}

TEST_F(CtlNextCommands, DoWithoutBoth)
{
    const std::string start =
        "rm -f /tmp/smack_early_ready /tmp/fw_update_ready_usb; "
        "touch /tmp/smack_early_ready /tmp/fw_update_ready_usb; "
        "quillon-service 2>>/var/log/quillon.log &";

    EXPECT_EQ(startService(), start);
    EXPECT_EQ(restartService(),
              "rm -f /tmp/fw_update_ready_usb; while pidof quillon-service; do sleep 1; done; "
              "rm -f /dev/mqueue/fwupdate*_usb /tmp/.fw_service_ready_usb; " +
                  start);
    const std::string group = getgrnam("quillon") != nullptr ? " --group quillon" : "";
    EXPECT_EQ(restartMountingHelper(), "kill -KILL $(pidof quillon-privileged); " QUILLON_HELPERS
                                       "/quillon-privileged" +
                                           group + " &");
    EXPECT_EQ(serviceLog(), "the service's standard error");
}

}  // namespace
