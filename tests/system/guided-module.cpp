// A firmware module that does something to the process that it was loaded into. What and when, the
// first word of /etc/quillon-test/NAME.conf says:
//
//   exit-in-ENTRY   ends it
//   crash-in-ENTRY  crashes
//   fork-in-ENTRY   forks a process, which exits
//   kill-in-ENTRY   forks a process, ends it with SIGTERM, and tells in /tmp/quillon-test-child
//   what
//                   signal ended it
//   wait-in-ENTRY   waits until there is a file /tmp/quillon-test-go
//   tool-in-ENTRY   starts a program that waits so, and tells in /tmp/quillon-test-child how it
//   ended
//
// As the other test plug-ins it tells what it is asked in /tmp/quillon-test-NAME.log.

#include <dlfcn.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "fw-update-plugin.h"

#define ENTRY __attribute__((visibility("default")))

namespace {

std::string ownName()
{
    Dl_info info = {};
    dladdr(reinterpret_cast<const void*>(&ownName), &info);
    std::string name = info.dli_fname;
    name.erase(0, name.rfind('/') + 1);
    return name.substr(0, name.rfind(".so"));
}

void actAt(const std::string& moment)
{
    std::ofstream("/tmp/quillon-test-" + ownName() + ".log", std::ios::app)
        << ownName() + "." + moment + "()\n";
    std::string word;
    std::ifstream("/etc/quillon-test/" + ownName() + ".conf") >> word;
    while (word == "wait-in-" + moment && ::access("/tmp/quillon-test-go", F_OK) != 0) {
        ::usleep(1000);
    }
    if (word == "tool-in-" + moment) {
        const int status = std::system("until test -e /tmp/quillon-test-go; do sleep 0.01; done");
        std::ofstream("/tmp/quillon-test-child") << status;
    }
    if (word == "exit-in-" + moment) {
        std::exit(0);
    }
    if (word == "crash-in-" + moment) {
        std::abort();
    }
    if (word == "kill-in-" + moment) {
        const pid_t child = ::fork();
        if (child == 0) {
            for (;;) {
                ::pause();
            }
        }
        ::kill(child, SIGTERM);
        int status = 0;
        ::waitpid(child, &status, 0);
        std::ofstream("/tmp/quillon-test-child") << (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
    }
    if (word == "fork-in-" + moment) {
        const pid_t child = ::fork();
        if (child == 0) {
            std::exit(0);
        }
        ::waitpid(child, nullptr, 0);
    }
}

}  // namespace

ENTRY int setContext(const char* /*libraryName*/, CallerTypes /*caller*/, char* /*argument*/)
{
    actAt("setContext");
    return 0;
}

ENTRY int getEMPID(char* buffer)
{
    std::strcpy(buffer, (ownName() + "emp").c_str());
    return 0;
}

ENTRY int getActiveVersion(char* buffer)
{
    std::strcpy(buffer, "1.0");
    return 0;
}

ENTRY int checkVersion(const char* /*version*/, int* need)
{
    actAt("checkVersion");
    *need = 1;
    return 0;
}

ENTRY int doUpdate(const char* /*path*/, unsigned long /*value*/)
{
    ::usleep(100000);  // one that is over at once may escape the registry
    actAt("doUpdate");
    return 0;
}

ENTRY int allUpdateDone(void)
{
    actAt("allUpdateDone");
    return 0;
}
