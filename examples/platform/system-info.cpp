// The device's software version stands in a file that the image's build has written.

#include "platform/system-info.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#ifndef DEVICE_VERSION_FILE
#define DEVICE_VERSION_FILE "/etc/device-version"
#endif

namespace {

constexpr int kSoftwareVersion = 128;

// @return the file's first line, to be released with free(); null when there is none
char* firstLine(const char* path)
{
    std::FILE* const file = std::fopen(path, "re");
    if (file == nullptr) {
        return nullptr;
    }
    char line[128] = {};
    const char* const read = std::fgets(line, sizeof(line), file);
    static_cast<void>(std::fclose(file));
    line[std::strcspn(line, "\n")] = '\0';
    return read == nullptr || line[0] == '\0' ? nullptr : strdup(line);
}

}  // namespace

int system_info_get_value_string(int key, char** value)
{
    if (key != kSoftwareVersion || value == nullptr) {
        return -1;
    }
    char* const version = firstLine(DEVICE_VERSION_FILE);  // MODEL-VERSION
    if (version == nullptr) {
        return -1;
    }
    *value = version;
    return 0;
}
