/* A module that tells, when it is loaded, what it gets where a unit confines it: lines for the rows
 * of the table in docs/module-tutorial.md, "probe: WHAT ERROR". */
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "fw-update-plugin.h"

static void tell(const char* what, int succeeds)
{
    fprintf(stderr, "probe: %s %s\n", what, succeeds ? "done" : strerrorname_np(errno));
}

static void tellOpen(const char* what, const char* path, int flags)
{
    const int file = open(path, flags | O_CLOEXEC, 0600);
    tell(what, file >= 0);
    if (file >= 0) {
        close(file);
    }
}

static void tellSocket(const char* what, int family, int type)
{
    const int end = socket(family, type | SOCK_CLOEXEC, 0);
    tell(what, end >= 0);
    if (end >= 0) {
        close(end);
    }
}

static void tellProgram(const char* path)
{
    FILE* file = fopen(path, "w");
    if (file != NULL) {
        fputs("#!/bin/sh\n", file);
        fclose(file);
        chmod(path, 0755);
    }
    tell("program", access(path, X_OK) == 0);
    const int library = open(path, O_RDONLY | O_CLOEXEC);
    tell("library", mmap(NULL, 1, PROT_READ | PROT_EXEC, MAP_PRIVATE, library, 0) != MAP_FAILED);
    close(library);
    unlink(path);
}

__attribute__((constructor)) static void probe(void)
{
    const struct sched_param first = {1};
    const struct timespec epoch = {0, 0};

    tellOpen("device", "/dev/net/tun", O_RDWR);
    tellOpen("state", "/var/lib/quillon/modules/probe", O_WRONLY | O_CREAT);
    unlink("/var/lib/quillon/modules/probe");
    tellOpen("file", "/usr/probe", O_WRONLY | O_CREAT);
    tellOpen("root's-directory", "/var/lib/probe", O_WRONLY | O_CREAT);
    tellOpen("sysfs", "/sys/class/probe", O_WRONLY | O_CREAT);
    tellOpen("home", "/home/.", O_RDONLY | O_DIRECTORY);
    tellOpen("proc", "/proc/cpuinfo", O_RDONLY);
    tellOpen("root's-file", "/etc/shadow", O_RDONLY);
    tellSocket("network", AF_INET, SOCK_DGRAM);
    tellSocket("netlink", AF_NETLINK, SOCK_RAW);
    tellProgram("/tmp/confined-probe");
    tell("more-rights", prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0) == 0);
    tell("write-and-execute", mmap(NULL, 1, PROT_READ | PROT_WRITE | PROT_EXEC,
                                   MAP_PRIVATE | MAP_ANONYMOUS, -1, 0) != MAP_FAILED);
    tell("mount", mount("none", "/mnt", "tmpfs", 0, NULL) == 0);
    tell("clock", clock_settime(CLOCK_REALTIME, &epoch) == 0);
    tell("real-time", sched_setscheduler(0, SCHED_FIFO, &first) == 0);
    tell("priority", nice(-1) == 0);
}

int setContext(const char* libraryName, CallerTypes caller, char* argument)
{
    (void)libraryName;
    (void)caller;
    (void)argument;
    return 0;
}

int getEMPID(char* buffer)
{
    strcpy(buffer, "probeemp");
    return 0;
}

int getActiveVersion(char* buffer)
{
    strcpy(buffer, "1");
    return 0;
}

int checkVersion(const char* version, int* need)
{
    (void)version;
    *need = 0;
    return 0;
}

int doUpdate(const char* path, unsigned long value)
{
    (void)path;
    (void)value;
    errno = ENOSYS;
    return -1;
}
