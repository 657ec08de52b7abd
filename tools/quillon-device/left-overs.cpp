#include "tools/quillon-device/left-overs.h"

#include <mqueue.h>
#include <semaphore.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace fs = std::filesystem;

namespace quillon::device {

namespace {

/// Kills each process that has this text in a file of its directory in /proc. The file is taken as
/// if a NUL stood before it.
/// @return whether there was any
bool killThoseWith(const std::string& text, const char* fileName)
{
    bool any = false;
    std::error_code ignored;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc", ignored)) {
        const pid_t pid = std::atoi(entry.path().filename().c_str());
        if (pid <= 0) {
            continue;
        }
        std::ifstream file(entry.path() / fileName);
        std::ostringstream content;
        content << '\0' << file.rdbuf();  // no exception for a process that ends meanwhile
        if (content.str().find(text) != std::string::npos) {
            any = ::kill(pid, SIGKILL) == 0 || any;
        }
    }
    return any;
}

}  // namespace

void killDescendants()
{
    // A newline in the name, which stands before, is escaped.
    const std::string isChild = "\nPPid:\t" + std::to_string(::getpid()) + "\n";
    do {
        killThoseWith(isChild, "status");
    } while (::waitpid(-1, nullptr, 0) > 0);
}

void killForgottenProcesses()
{
    constexpr int kTries = 1000;  // five seconds; what is not dead by then hangs in the kernel
    const std::string mark = '\0' + std::string("QUILLON_DEVICE=in-place") + '\0';
    for (int tries = 0; tries < kTries && killThoseWith(mark, "environ"); ++tries) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

void removeQueues()
{
    std::vector<std::string> names = {"/fwupdateservice_usb", "/fwupdatecontrol_usb"};
    std::error_code ignored;
    for (const fs::directory_entry& entry : fs::directory_iterator("/dev/mqueue", ignored)) {
        const std::string name = "/" + entry.path().filename().string();
        if (name.rfind("/fwupdate", 0) == 0) {
            names.push_back(name);
        }
    }
    for (const std::string& name : names) {
        ::mq_unlink(name.c_str());
    }
    ::sem_unlink("/SEM_UPDATE_CONTROL");
}

}  // namespace quillon::device
