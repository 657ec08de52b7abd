// A firmware module that tells in one file, shared with its like, when it flashes. Each line is
// appended in one piece: "begin NAME PID" and "end NAME PID" around an update from a file, and
// "stick NAME PID" for one from a stick.

#include <dlfcn.h>
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
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

void trace(const char* what)
{
    const std::string line =
        std::string(what) + " " + ownName() + " " + std::to_string(::getpid()) + "\n";
    const int file =
        ::open("/tmp/quillon-test-trace.log", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    static_cast<void>(!::write(file, line.data(), line.size()));
    ::close(file);
}

void flash()
{
    const timespec pause = {0, 10000000};
    ::nanosleep(&pause, nullptr);
}

}  // namespace

ENTRY int setContext(const char* /*libraryName*/, CallerTypes /*caller*/, char* /*argument*/)
{
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
    *need = 1;
    return 0;
}

ENTRY int doUpdate(const char* /*path*/, unsigned long /*value*/)
{
    trace("begin");
    flash();
    trace("end");
    return 0;
}

ENTRY int doUpdate_decryption(const unsigned char* /*data*/, int /*length*/)
{
    flash();
    trace("stick");
    return 0;
}

ENTRY int getExpectedTime(int* seconds)
{
    *seconds = 1;
    return 0;
}
