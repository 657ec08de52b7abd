// The entries of a firmware module; fw-update-plugin.h says what each one promises. Change the
// identifier and the expected time, and leave the names and the results as they are. Nothing may be
// thrown out of an entry.

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>

#include "component.h"
#include "fw-update-plugin.h"

namespace {

// Letters and digits with "emp" once in it. Without "emp" it is the firmware name: the stick
// carries "lamp.bin", the package is "lampemp.img".
constexpr char kIdentifier[] = "lampemp";
constexpr int kExpectedSeconds = 5;

std::mutex guard;  // a query may come while an update runs
char offered[FW_PLUGIN_TEXT_SIZE];

bool isVersionText(const char* text)
{
    const std::size_t length = std::strlen(text);
    return length > 0 && length < FW_PLUGIN_TEXT_SIZE &&
           std::all_of(text, text + length, [](char c) { return c > ' ' && c <= '~'; });
}

int installOffered(const unsigned char* firmware, std::size_t length)
{
    char version[FW_PLUGIN_TEXT_SIZE];
    {
        const std::lock_guard<std::mutex> lock(guard);
        std::memcpy(version, offered, sizeof(version));
    }
    if (version[0] == '\0' || length == 0 || length > component::kLargestFirmware) {
        errno = EINVAL;  // the service logs it
        return -1;
    }
    return component::install(firmware, length, version) ? 0 : -1;
}

}  // namespace

int setContext(const char* /*libraryName*/, CallerTypes /*caller*/, char* /*argument*/)
{
    return 0;
}

int getEMPID(char* buffer)
{
    std::memcpy(buffer, kIdentifier, sizeof(kIdentifier));
    return 0;
}

int getActiveVersion(char* buffer)
{
    component::readVersion(buffer, FW_PLUGIN_TEXT_SIZE);
    return 0;
}

// Any other version than the running one is welcome here. Refuse older ones if yours may not go
// back: an old image stays validly signed. What is no version text comes from an image that was
// enciphered with another key; the service cannot tell.
int checkVersion(const char* version, int* need)
{
    if (!isVersionText(version)) {
        errno = EINVAL;
        return -1;
    }
    char active[FW_PLUGIN_TEXT_SIZE];
    component::readVersion(active, sizeof(active));
    const std::lock_guard<std::mutex> lock(guard);
    std::memcpy(offered, version, std::strlen(version) + 1);
    *need = std::strcmp(version, active) != 0 ? 1 : 0;
    return 0;
}

// From a USB stick: the payload is already verified and deciphered.
int doUpdate_decryption(const unsigned char* data, int length)
{
    return installOffered(data, length > 0 ? static_cast<std::size_t>(length) : 0);
}

// From a package: the payload lies in a file whose checksum the service has compared already.
int doUpdate(const char* path, unsigned long /*value*/)
{
    auto* const data = new (std::nothrow) unsigned char[component::kLargestFirmware + 1];
    if (data == nullptr) {
        return -1;
    }
    int result = -1;
    std::FILE* const file = std::fopen(path, "rbe");
    if (file != nullptr) {
        const std::size_t length = std::fread(data, 1, component::kLargestFirmware + 1, file);
        const bool whole = std::ferror(file) == 0;
        static_cast<void>(std::fclose(file));
        result = whole ? installOffered(data, length) : -1;
    }
    delete[] data;
    return result;
}

int getExpectedTime(int* seconds)
{
    *seconds = kExpectedSeconds;
    return 0;
}

int getUpdateProgress(unsigned int* progress)
{
    *progress = component::progress();
    return 0;
}

// The place to restart the component, when it cannot be restarted at the end of its own update.
int allUpdateDone()
{
    return 0;
}
