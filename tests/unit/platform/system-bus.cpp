#include "system-bus.h"
#include "support/files.h"
#include "support/process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>

namespace fs = std::filesystem;

namespace {

constexpr char kConfiguration[] = R"(<busconfig>
  <type>system</type>
  <listen>unix:path=SOCKET</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow own="*"/>
    <allow send_destination="*"/>
    <allow receive_sender="*"/>
  </policy>
</busconfig>
)";

}  // namespace

bool SystemBus::canStart()
{
    // NOLINTNEXTLINE(cert-env33-c): looks only whether there is such a program
    return quillon::test::succeeds("command -v dbus-daemon");
}

SystemBus::SystemBus()
{
    char directory[] = "/tmp/quillon-bus.XXXXXX";
    if (mkdtemp(directory) == nullptr) {
        ADD_FAILURE() << "no directory for a bus";
        return;
    }
    directory_ = directory;
    const std::string socket = directory_ + "/socket";
    std::string configuration = kConfiguration;
    configuration.replace(configuration.find("SOCKET"), 6, socket);
    const std::string file = directory_ + "/bus.conf";
    quillon::test::writeFile(file, configuration);

    int ready[2] = {-1, -1};
    EXPECT_EQ(pipe(ready), 0);
    daemon_ = fork();
    if (daemon_ == 0) {
        dup2(ready[1], STDOUT_FILENO);
        // It grumbles where it is not root.
        dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
        execlp("dbus-daemon", "dbus-daemon", "--nofork", "--nopidfile", "--print-address",
               ("--config-file=" + file).c_str(), nullptr);
        _exit(127);
    }
    close(ready[1]);
    char byte = 0;
    EXPECT_EQ(read(ready[0], &byte, 1), 1) << "dbus-daemon does not start";
    close(ready[0]);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + socket).c_str(), 1);
}

SystemBus::~SystemBus()
{
    unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    if (daemon_ > 0) {
        kill(daemon_, SIGKILL);
        waitpid(daemon_, nullptr, 0);
    }
    fs::remove_all(directory_);
}
