// The library holds no state and registers nothing that runs later, so the process may unload it
// after any call and load it again.

#include <dlfcn.h>
#include <openssl/err.h>

#include <cstdio>
#include <string>

#include "image-error.h"
#include "platform/log.h"
#include "platform/verifier.h"
#include "signed-file.h"
#include "trusted-keys.h"

namespace {

constexpr char kName[] = "libkUEPUser";
constexpr int kSystemLog = 2;
constexpr int kErrorPriority = 6;

/// Leaves the process's OpenSSL error queue as it was.
class ErrorQueueGuard
{
public:
    ErrorQueueGuard() { ERR_set_mark(); }
    ~ErrorQueueGuard() { ERR_pop_to_mark(); }
    ErrorQueueGuard(const ErrorQueueGuard&) = delete;
    ErrorQueueGuard& operator=(const ErrorQueueGuard&) = delete;
};

// The verifier also serves processes that bring no platform log, hence the look-up at run time.
void complain(const std::string& message)
{
    const auto log = reinterpret_cast<decltype(&__dlog_print)>(dlsym(RTLD_DEFAULT, "__dlog_print"));
    if (log != nullptr) {
        log(kSystemLog, kErrorPriority, kName, "%s: %s", kName, message.c_str());
        return;
    }
    static_cast<void>(std::fprintf(stderr, "%s: %s\n", kName, message.c_str()));
}

int verify(const char* path, const char* caller)
{
    const ErrorQueueGuard guard;
    try {
        const quillon::SignedFile file(path);
        quillon::requireTrustedSignature(file, QUILLON_TRUSTED_KEYS, &complain);
        return 1;
    } catch (const quillon::ImageError& error) {
        const std::string asker = caller == nullptr ? "" : caller;
        complain(error.what() + (asker.empty() ? asker : " (asked by " + asker + ")"));
        return 0;
    }
}

}  // namespace

int verifyFile(void* /*reserved*/, const char* path, const char* caller)
{
    try {
        return verify(path == nullptr ? "" : path, caller);
    } catch (...) {
        // Only memory runs out here. A file that could not be checked is not a signed one.
        static_cast<void>(std::fputs("libkUEPUser: out of memory\n", stderr));
        return 0;
    }
}
