#include "platform/system-info.h"

#include <glib.h>

#include <cstdio>
#include <memory>

#include "base/fd.h"
#include "platform/log/platform-log.h"

namespace quillon {
namespace {

constexpr int kSoftwareVersion = 128;

using UniqueText = std::unique_ptr<char, ReleaseWith<&g_free>>;

// The image's own name and version where the image builder wrote them, the distribution's
// otherwise.
UniqueText osInfo(const char* key, const char* fallbackKey)
{
    UniqueText value(g_get_os_info(key));
    if (!value || *value == '\0') {
        value.reset(g_get_os_info(fallbackKey));
    }
    if (value && *value == '\0') {
        value.reset();
    }
    return value;
}

}  // namespace
}  // namespace quillon

int system_info_get_value_string(int key, char** value)
{
    using namespace quillon;
    if (value == nullptr) {
        PLATFORM_LOGE("system information %d: no place for the value", key);
        return -1;
    }
    if (key != kSoftwareVersion) {
        PLATFORM_LOGE("system information %d is not known on this platform", key);
        return -1;
    }
    const UniqueText model = osInfo("IMAGE_ID", "ID");
    const UniqueText version = osInfo("IMAGE_VERSION", "VERSION_ID");
    if (!model || !version) {
        PLATFORM_LOGE("os-release names neither %s",
                      model ? "IMAGE_VERSION nor VERSION_ID" : "IMAGE_ID nor ID");
        return -1;
    }
    char* text = nullptr;
    if (asprintf(&text, "%s-%s", model.get(), version.get()) < 0) {
        PLATFORM_LOGE("no memory for the software version");
        return -1;
    }
    *value = text;
    return 0;
}
