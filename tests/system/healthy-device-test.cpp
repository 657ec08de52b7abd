// quillonctl doctor on a device as the packages set it up, with the real programs around the real
// service, which runs as its own user.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "support/host-user.h"
#include "support/open-way.h"
#include "support/process.h"
#include "support/wait.h"
#include "unit/storage/listener.h"
#include "unit/verifier/test-keys.h"

namespace quillon::test {
namespace {

namespace fs = std::filesystem;

// Of neither is there one on a host.
constexpr uid_t kItsUser = 61990;
constexpr uid_t kStranger = 61234;

constexpr const char* kReadyEvent = "/tmp/.fw_service_ready_usb";
constexpr const char* kStorageSocket = "/run/quillon/storage.sock";

/// What the storage's socket unit does for each connection.
void serveStorage(int connection)
{
    const pid_t child = fork();
    if (child == 0) {
        dup2(connection, STDIN_FILENO);
        execl(QUILLON_STORAGE_PROGRAM, "quillon-storage", "--user", "quillon", nullptr);
        _exit(126);
    }
    statusOf(child);
}

/// The beginning of a command that this user and group runs.
std::string as(uid_t user)
{
    const std::string number = std::to_string(user);
    return "setpriv --clear-groups --reuid " + number + " --regid " + number + " ";
}

std::string doctorSays(uid_t user)
{
    return outputOf(as(user) + QUILLONCTL_PROGRAM " doctor");
}

TEST(HealthyDevice, AsThePackagesSetItUpHasNoFault)
{
    const char* way = std::getenv("QUILLON_DEVICE");
    if (way == nullptr || way != std::string("root")) {
        GTEST_SKIP() << "the users are this machine's";
    }
    if (!openWayTo(QUILLON_SERVICE_PROGRAM) ||
        !succeeds(as(kItsUser) + QUILLONCTL_PROGRAM " --version")) {
        GTEST_SKIP() << "other users may not walk to the built programs and libraries";
    }
    ASSERT_TRUE(forgetHostsUser("quillon"));
    std::ofstream("/etc/passwd", std::ios::app)
        << "quillon:x:61990:61990::/var/lib/quillon:/usr/sbin/nologin\n";
    std::ofstream("/etc/group", std::ios::app) << "quillon:x:61990:\n";
    outputOf("umask 022; systemd-tmpfiles --create " TMPFILES
             "; install -d -o quillon -g quillon /run/quillon/run");
    fs::copy_file(VERIFIER_LIBRARY, "/usr/lib/libkUEPUser.so");
    fs::copy_file(TEST_MODULE, "/usr/fwupdate/controls/lamp.so");
    trust("a");
    trustProvisioning("a");
    outputOf(QUILLON_STORAGE_PROGRAM " --install " + keyPath("a", "00000066.bin"));

    const Listener storage(serveStorage);
    ASSERT_EQ(chown(kStorageSocket, kItsUser, 0), 0);
    fs::permissions(kStorageSocket, fs::perms(0600));
    const Process mounts({QUILLON_PRIVILEGED_PROGRAM, "--group", "quillon"});
    ASSERT_TRUE(
        waitFor("the mounting helper", [] { return fs::exists("/run/quillon/privileged.sock"); }));
    outputOf(QUILLON_UNIT_PROGRAM " prepare quillon");
    const Process service({"setpriv", "--reuid", "quillon", "--regid", "quillon", "--init-groups",
                           QUILLON_SERVICE_PROGRAM});
    ASSERT_TRUE(waitFor("the service", [] { return fs::is_regular_file(kReadyEvent); }));

    EXPECT_EQ(doctorSays(0), "Nothing found\n");
    EXPECT_EQ(doctorSays(kItsUser), "Nothing found\n");
    EXPECT_THAT(doctorSays(kStranger), testing::HasSubstr("\n0 errors, 0 warnings, "));
}

}  // namespace
}  // namespace quillon::test
