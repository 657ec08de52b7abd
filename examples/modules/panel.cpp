// A firmware module like tuner.cpp, which explains each entry. It differs in its identifier only.

#include <cstring>

#include "file-flash.h"
#include "fw-update-plugin.h"

namespace {

quillon::FileFlash device("panel");

}  // namespace

int setContext(const char* /*libraryName*/, CallerTypes /*caller*/, char* /*argument*/)
{
    return 0;
}

int getEMPID(char* buffer)
{
    constexpr char kIdentifier[] = "panelemp";
    std::memcpy(buffer, kIdentifier, sizeof(kIdentifier));
    return 0;
}

int getActiveVersion(char* buffer)
{
    return device.activeVersion(buffer);
}

int checkVersion(const char* version, int* need)
{
    return device.offer(version, need);
}

int doUpdate(const char* path, unsigned long value)
{
    return device.flashFile(path, value);
}

int doUpdate_decryption(const unsigned char* data, int length)
{
    return device.flash(data, length);
}

int getExpectedTime(int* seconds)
{
    return device.expectedTime(seconds);
}

int getUpdateProgress(unsigned int* progress)
{
    return device.progress(progress);
}

int allUpdateDone()
{
    return 0;
}
