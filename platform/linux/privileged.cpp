#include "platform/privileged.h"

#include <cerrno>

#include "once.h"
#include "platform-log.h"

namespace {

int refuse(const char* request, quillon::Once& said, int* result)
{
    if (said.first()) {
        PLATFORM_LOGI("%s: there is no privileged service on this platform yet", request);
    }
    if (result != nullptr) {
        *result = -1;
    }
    errno = ENOSYS;
    return -1;
}

}  // namespace

int PS_Mount(const char* /*request*/, int /*size*/, int /*reserved*/, int* result)
{
    static quillon::Once said;
    return refuse("PS_Mount", said, result);
}

int PS_Mknod(const char* /*request*/, int /*size*/, int /*reserved*/, int* result)
{
    static quillon::Once said;
    return refuse("PS_Mknod", said, result);
}

int PS_Umount(const char* /*directory*/, int /*length*/, int /*reserved*/, int* result)
{
    static quillon::Once said;
    return refuse("PS_Umount", said, result);
}
