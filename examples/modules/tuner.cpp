// The template of a firmware module in C++. Copy it, then
//   1. change the identifier in getEMPID: letters and digits, with "emp" once in it. What remains
//      without "emp" is the firmware name, here "tuner": the stick carries "tuner.bin".
//   2. replace the object "device" by the code that talks to your component.
//   3. keep the entries' names and results. Throw nothing out of them.

#include <cstring>

#include "file-flash.h"
#include "fw-update-plugin.h"

namespace {

quillon::FileFlash device("tuner");

}  // namespace

// The service says for whom it works before each piece of work. A module that treats all callers
// alike has nothing to remember.
int setContext(const char* /*libraryName*/, CallerTypes /*caller*/, char* /*argument*/)
{
    return 0;
}

int getEMPID(char* buffer)
{
    constexpr char kIdentifier[] = "tuneremp";
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

// An update from a package, or from another directory of the system: the payload lies in a file,
// and the value is its CRC-32. The service has compared them already; the device does so again with
// the bytes that it really writes.
int doUpdate(const char* path, unsigned long value)
{
    return device.flashFile(path, value);
}

// An update from a USB stick. The payload is already verified and deciphered.
int doUpdate_decryption(const unsigned char* data, int length)
{
    return device.flash(data, length);
}

// For a USB stick; a package tells the time itself.
int getExpectedTime(int* seconds)
{
    return device.expectedTime(seconds);
}

// May be called from another thread while doUpdate or doUpdate_decryption runs.
int getUpdateProgress(unsigned int* progress)
{
    return device.progress(progress);
}

// The place to restart the component, when it cannot be restarted at the end of its own update.
int allUpdateDone()
{
    return 0;
}
