/* The floor under the service: a process that is linked with the same libraries, says READY=1 and
   waits. With a directory as its argument it first opens the modules in it and looks their entries
   up, as whoever loads modules has to. Where nobody listens for its readiness, it ends at once. */
#define _GNU_SOURCE
#include <dirent.h>
#include <dlfcn.h>
#include <stddef.h>
#include <stdio.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

static const char* const kEntries[] = {
    "setContext",          "getEMPID",        "getActiveVersion",
    "checkVersion",        "doUpdate",        "allUpdateDone",
    "doUpdate_decryption", "getExpectedTime", "getUpdateProgress"};

static int isModule(const char* path)
{
    void* library = dlopen(path, RTLD_NOW); /* stays open for the life of the process */
    int isComplete = library != NULL;
    for (size_t i = 0; isComplete && i < sizeof kEntries / sizeof kEntries[0]; ++i) {
        isComplete = dlsym(library, kEntries[i]) != NULL;
    }
    return isComplete;
}

static int openModulesIn(const char* directory)
{
    DIR* entries = opendir(directory);
    int allOpen = entries != NULL;
    for (struct dirent* entry; allOpen && (entry = readdir(entries)) != NULL;) {
        char path[4096];
        (void)snprintf(path, sizeof path, "%s/%s", directory, entry->d_name);
        allOpen = entry->d_name[0] == '.' || isModule(path);
    }
    return allOpen && closedir(entries) == 0;
}

int main(int count, char* arguments[])
{
    if ((count > 1 && !openModulesIn(arguments[1])) || sd_notify(0, "READY=1") <= 0) {
        return 1;
    }
    for (;;) {
        pause();
    }
}
