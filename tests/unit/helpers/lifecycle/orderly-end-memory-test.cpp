// Who stops the service waits for its end also where memory runs out.

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "helpers/lifecycle/orderly-end.h"
#include "support/failing-memory.h"
#include "support/files.h"

namespace quillon::test {
namespace {

constexpr const char* kMarker = "/tmp/fw_update_ready_usb";

/// Stops a service that ends some time after its marker has gone, and expects that to be waited
/// for.
/// @return whether an allocation has failed
bool endWithFailing(int allocation, Failing failing)
{
    writeFile(kMarker, "");
    const pid_t service = fork();
    if (service == 0) {
        while (access(kMarker, F_OK) == 0) {
            usleep(1000);
        }
        usleep(20000);
        _exit(0);
    }
    failAllocation(allocation, failing);
    unit::endAndWait(kMarker, service);
    const bool hasFailed = stopFailing();

    siginfo_t info = {};
    EXPECT_EQ(waitid(P_PID, static_cast<id_t>(service), &info, WEXITED | WNOHANG), 0);
    EXPECT_EQ(info.si_pid, service) << "allocation " << allocation;
    std::filesystem::remove(kMarker);
    for (const auto& entry : std::filesystem::directory_iterator("/tmp")) {
        const std::string name = entry.path().filename();
        EXPECT_NE(name.rfind(".quillon-", 0), 0U) << name << " is left, allocation " << allocation;
    }
    return hasFailed;
}

TEST(OrderlyEndWithoutMemory, WaitsForTheServiceWhicheverAllocationFails)
{
    const long handle = syscall(SYS_pidfd_open, getpid(), 0);
    if (handle < 0) {
        GTEST_SKIP() << "without such a handle, a process that nobody has waited for seems to live";
    }
    close(static_cast<int>(handle));
    ::testing::internal::CaptureStderr();
    for (const Failing failing : {Failing::kOne, Failing::kAllFromThere}) {
        int allocation = 0;
        while (endWithFailing(allocation, failing)) {
            ++allocation;
        }
        EXPECT_GT(allocation, 10);
    }
    ::testing::internal::GetCapturedStderr();
}

}  // namespace
}  // namespace quillon::test
