// This device is updated from a stick only: it mounts no packages and downloads none. One that does
// has a process with the right to mount, and passes the three requests on to it.

#include <cerrno>

#include "platform/app-binary-manager.h"
#include "platform/log.h"
#include "platform/privileged.h"

namespace {

int refuse(int* result)
{
    __dlog_print(2, 6, "DEVICE", "this device mounts no packages");
    if (result != nullptr) {
        *result = -1;
    }
    errno = ENOTSUP;
    return -1;
}

}  // namespace

int PS_Mount(const char* /*request*/, int /*size*/, int /*reserved*/, int* result)
{
    return refuse(result);
}

int PS_Mknod(const char* /*request*/, int /*size*/, int /*reserved*/, int* result)
{
    return refuse(result);
}

int PS_Umount(const char* /*directory*/, int /*length*/, int /*reserved*/, int* result)
{
    return refuse(result);
}

namespace appbinaryManager {

bool ABM_DownloadAppBinary(void (* /*callback*/)(const std::string& identifier, int status,
                                                 void* user_data),
                           void* /*user_data*/, const std::string& /*identifier*/)
{
    __dlog_print(2, 6, "DEVICE", "this device downloads no packages");
    return false;
}

}  // namespace appbinaryManager
