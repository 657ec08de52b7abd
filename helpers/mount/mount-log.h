#pragma once

#include "platform/log.h"

// The helper's own lines in the platform's log; the message is a string literal in printf format.
#define PRIVILEGED_LOG(priority, message, ...)                                              \
    __dlog_print(2, priority, "QUILLON-PRIVILEGED", "%s: %s(%d) > " message, __FILE_NAME__, \
                 static_cast<const char*>(__func__), __LINE__, __VA_ARGS__)
#define PRIVILEGED_LOGI(message, ...) PRIVILEGED_LOG(4, message, __VA_ARGS__)
#define PRIVILEGED_LOGE(message, ...) PRIVILEGED_LOG(6, message, __VA_ARGS__)
