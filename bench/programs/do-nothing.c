/* The floor under the service: a process that is linked with the same libraries, says READY=1 and
   waits. With a directory as its argument it first opens the modules in it and looks their entries
   up, as whoever loads modules has to. */
#define _GNU_SOURCE
#include <dirent.h>
#include <dlfcn.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
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

/* Says READY=1 at the socket NOTIFY_SOCKET, whose name begins with "@". @return 0 when it cannot */
static int sayReady(void)
{
    const char* name = getenv("NOTIFY_SOCKET");
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    if (name == NULL || strlen(name) > sizeof address.sun_path) {
        return 0;
    }
    memcpy(address.sun_path + 1, name + 1, strlen(name) - 1);
    const int file = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const size_t size = offsetof(struct sockaddr_un, sun_path) + strlen(name);
    const ssize_t sent =
        sendto(file, "READY=1", 7, MSG_NOSIGNAL, (const struct sockaddr*)&address, (socklen_t)size);
    close(file);
    return sent >= 0;
}

int main(int count, char* arguments[])
{
    if ((count > 1 && !openModulesIn(arguments[1])) || !sayReady()) {
        return 1;
    }
    for (;;) {
        pause();
    }
}
