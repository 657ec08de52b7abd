/* The smallest module that the service takes as a complete one. Copies under other names are
   modules of their own: the identifier is made from the name that the service calls it by. */
#pragma GCC diagnostic ignored "-Wunused-parameter"
#include <stdio.h>

#include "fw-update-plugin.h"

static char name[FW_PLUGIN_TEXT_SIZE - sizeof("emp")];

int setContext(const char* libraryName, CallerTypes caller, char* argument)
{
    (void)snprintf(name, sizeof(name), "%s", libraryName);
    return 0;
}

int getEMPID(char* buffer)
{
    (void)snprintf(buffer, FW_PLUGIN_TEXT_SIZE, "%semp", name);
    return 0;
}

int getActiveVersion(char* buffer)
{
    (void)snprintf(buffer, FW_PLUGIN_TEXT_SIZE, "1.0");
    return 0;
}

int allUpdateDone(void)
{
    return 0;
}

int getExpectedTime(int* seconds)
{
    *seconds = 1;
    return 0;
}

int getUpdateProgress(unsigned int* progress)
{
    return (int)(*progress = 0);
}

#ifndef TAKES_IMAGES
int checkVersion(const char* version, int* need)
{
    return *need = 0;
}

int doUpdate(const char* path, unsigned long value)
{
    return 0;
}

int doUpdate_decryption(const unsigned char* data, int length)
{
    return 0;
}
#endif
