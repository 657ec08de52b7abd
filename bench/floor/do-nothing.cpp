// The floor under the service: a process that is linked with the same libraries, says READY=1 and
// waits. With a folder as its argument it first opens the modules in it and looks their entries up,
// as whoever loads modules has to.

#include <dirent.h>
#include <dlfcn.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>

#include "floor/say-ready.h"

namespace {

constexpr const char* kEntries[] = {"setContext",          "getEMPID",        "getActiveVersion",
                                    "checkVersion",        "doUpdate",        "allUpdateDone",
                                    "doUpdate_decryption", "getExpectedTime", "getUpdateProgress"};
constexpr std::size_t kLongestPath = 4096;

bool openModule(const char* path)
{
    void* library = dlopen(path, RTLD_NOW);  // stays open for the life of the process
    if (library == nullptr) {
        return false;
    }
    for (const char* entry : kEntries) {
        if (dlsym(library, entry) == nullptr) {
            return false;
        }
    }
    return true;
}

bool openModulesIn(const char* folder)
{
    DIR* entries = opendir(folder);
    if (entries == nullptr) {
        return false;
    }
    bool allOpen = true;
    for (const dirent* entry = readdir(entries); entry != nullptr; entry = readdir(entries)) {
        char path[kLongestPath];
        const int length = snprintf(path, sizeof path, "%s/%s", folder, entry->d_name);
        const bool fits = length > 0 && static_cast<std::size_t>(length) < sizeof path;
        if (entry->d_name[0] != '.') {
            allOpen = fits && openModule(path) && allOpen;
        }
    }
    closedir(entries);
    return allOpen;
}

}  // namespace

int main(int count, char* arguments[])
{
    if (count > 1 && !openModulesIn(arguments[1])) {
        return 1;
    }
    if (!sayReadyIfAsked()) {
        return 1;
    }
    for (;;) {
        pause();
    }
}
