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

std::vector<pid_t> processes()
{
    std::vector<pid_t> found;
    std::error_code ignored;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc", ignored)) {
        const pid_t pid = std::atoi(entry.path().filename().c_str());
        if (pid > 0) {
            found.push_back(pid);
        }
    }
    return found;
}

std::string contentOf(pid_t pid, const char* name)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/" + name);
    std::ostringstream content;
    content << file.rdbuf();  // no exception for a process that ends between open and read
    return content.str();
}

pid_t parentOf(pid_t pid)
{
    const std::string stat = contentOf(pid, "stat");
    const std::size_t nameEnd = stat.rfind(')');  // the name itself may hold blanks and brackets
    if (nameEnd == std::string::npos) {
        return -1;
    }
    std::istringstream fields(stat.substr(nameEnd + 1));
    char state = 0;
    pid_t parent = -1;
    fields >> state >> parent;
    return parent;
}

/// Kills every process with this line in its environment. @return whether there was any
bool killMarked(const std::string& line)
{
    const std::string mark = line + '\0';
    bool any = false;
    for (const pid_t pid : processes()) {
        const std::string environment = contentOf(pid, "environ");
        const std::size_t place = environment.find(mark);
        if (place != std::string::npos && (place == 0 || environment[place - 1] == '\0')) {
            any = ::kill(pid, SIGKILL) == 0 || any;
        }
    }
    return any;
}

}  // namespace

void killDescendants()
{
    for (;;) {
        for (const pid_t pid : processes()) {
            if (parentOf(pid) == ::getpid()) {
                ::kill(pid, SIGKILL);
            }
        }
        if (::waitpid(-1, nullptr, 0) < 0) {
            return;
        }
    }
}

void killForgottenProcesses()
{
    constexpr int kTries = 1000;  // five seconds; what is not dead by then hangs in the kernel
    for (int tries = 0; tries < kTries && killMarked("QUILLON_DEVICE=in-place"); ++tries) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

bool seesItsOwnProcesses()
{
    std::error_code ignored;
    return fs::read_symlink("/proc/self", ignored) == std::to_string(::getpid());
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
