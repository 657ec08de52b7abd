// The platform of the counted paths: the same on every machine. It formats log lines, since the
// service waits for that on any platform, and does nothing else.
#include <cstdarg>
#include <cstdio>

#include "platform/app-binary-manager.h"
#include "platform/events.h"
#include "platform/log.h"
#include "platform/power.h"
#include "platform/privileged.h"
#include "platform/secure-storage.h"
#include "platform/system-info.h"
#include "platform/trace.h"
#include "platform/watchdog.h"

int __dlog_print(int /*buffer*/, int /*priority*/, const char* /*tag*/, const char* format, ...)
{
    char line[1024];
    va_list arguments;
    va_start(arguments, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)  va_start has set it
    const int length = vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    return length;
}

int trace_logger_write(int /*priority*/, const char* /*tag*/, const char* /*file*/,
                       const char* /*function*/, int /*line*/, const char* /*format*/, ...)
{
    return 0;
}

int system_info_get_value_string(int /*key*/, char** /*value*/)
{
    return -1;
}

int device_power_lock_state(int /*type*/, int /*timeout_ms*/)
{
    return 0;
}

int device_power_unlock_state(int /*type*/)
{
    return 0;
}

int ss_init_credential(ss_credential* /*credential*/, uint32_t /*word0*/, uint32_t /*word1*/,
                       uint32_t /*word2*/, uint32_t /*word3*/, uint32_t /*word4*/, int /*flag0*/,
                       int /*flag1*/)
{
    return 0;
}

int ss_read(unsigned char** /*data*/, size_t* /*size*/, int /*reserved0*/, int /*reserved1*/,
            const char* /*item*/, ss_credential* /*credential*/, unsigned int /*mode*/)
{
    return -1;
}

void ss_free_buffer(unsigned char* /*data*/)
{
}

int sdp_install_from_file(const char* /*path*/, int /*kind*/, int /*reserved*/)
{
    return -1;
}

int LwipcEventDone(const char* /*name*/)
{
    return 0;
}

int smart_deadlock_register_watchdog_service(int /*seconds*/)
{
    return 0;
}

int smart_deadlock_watchdog_notify()
{
    return 0;
}

int smart_deadlock_unregister_watchdog_service()
{
    return 0;
}

int PS_Mount(const char* /*request*/, int /*size*/, int /*reserved*/, int* /*result*/)
{
    return -1;
}

int PS_Mknod(const char* /*request*/, int /*size*/, int /*reserved*/, int* /*result*/)
{
    return -1;
}

int PS_Umount(const char* /*directory*/, int /*length*/, int /*reserved*/, int* /*result*/)
{
    return -1;
}

bool appbinaryManager::ABM_DownloadAppBinary(void (* /*callback*/)(const std::string&, int, void*),
                                             void* /*user_data*/, const std::string& /*identifier*/)
{
    return false;
}
