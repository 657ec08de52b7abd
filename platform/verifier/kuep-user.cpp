// The library holds no state and registers nothing that runs later, so the process may unload it
// after any call and load it again.

#include <dlfcn.h>
#include <openssl/err.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <string>

#include "platform/log.h"
#include "platform/verifier.h"
#include "platform/verifier/image-error.h"
#include "platform/verifier/signed-file.h"
#include "platform/verifier/trust-policy.h"
#include "platform/verifier/trusted-keys.h"

namespace quillon {
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

/// What the device says now, in its own file and by the floors that packages have raised.
TrustPolicy presentPolicy(const std::string& path)
{
    try {
        TrustPolicy policy = loadTrustPolicy(QUILLON_TRUST_POLICY);
        raiseFloors(policy.floors, loadFloors(QUILLON_SECURITY_FLOORS));
        return policy;
    } catch (const ImageError& error) {
        throw notSigned(path, std::string("no image is trusted: ") + error.what());
    }
}

void requireTrusted(const ImageTrailer& trailer, const std::string& path,
                    const std::function<ContentDigest()>& digest)
{
    const ImagePurpose purpose = requireAllowed(trailer, path, presentPolicy(path));
    requireTrustedSignature(trailer, path, purpose, digest, QUILLON_TRUSTED_KEYS, &complain);
}

void requireSigned(const std::string& path)
{
    const SignedFile file(path);
    requireTrusted(file.trailer(), path, [&file] { return file.contentDigest(); });
}

void requireSigned(const unsigned char* sha256, const unsigned char* trailer, int trailerSize,
                   const std::string& path)
{
    if (sha256 == nullptr || trailer == nullptr || path.empty()) {
        throw notSigned(path, "the question lacks a digest, a trailer or a name");
    }
    if (trailerSize != static_cast<int>(kTrailerSize)) {
        throw notSigned(path, "trailer has " + std::to_string(trailerSize) + " bytes instead of " +
                                  std::to_string(kTrailerSize));
    }
    TrailerBytes bytes{};
    std::copy_n(trailer, bytes.size(), bytes.begin());
    ContentDigest digest{};
    std::copy_n(sha256, digest.size(), digest.begin());
    requireTrusted(parseTrailer(bytes, path), path, [&digest] { return digest; });
}

std::string textOf(const char* text)
{
    return text == nullptr ? "" : text;
}

/// @param check  throws ImageError for what is not signed
/// @return what an entry returns.
template <typename Check>
int answer(const char* caller, Check check)
{
    try {
        const ErrorQueueGuard guard;
        try {
            check();
            return 1;
        } catch (const ImageError& error) {
            const std::string asker = textOf(caller);
            complain(error.what() + (asker.empty() ? asker : " (asked by " + asker + ")"));
            return 0;
        }
    } catch (...) {
        // Only memory runs out here. What could not be checked is not signed.
        static_cast<void>(std::fputs("libkUEPUser: out of memory\n", stderr));
        return 0;
    }
}

/// Opens this library once, while there is memory. The dynamic linker allocates when a preloaded
/// library is opened for the first time. The service does that when it has an image to check, and
/// takes the image for signed if it fails.
__attribute__((constructor)) void openOnce()
{
    Dl_info own = {};
    if (dladdr(kName, &own) != 0) {
        if (void* const handle = dlopen(own.dli_fname, RTLD_LAZY | RTLD_NOLOAD)) {
            dlclose(handle);
        }
    }
}

}  // namespace
}  // namespace quillon

int verifyFile(void* /*reserved*/, const char* path, const char* caller)
{
    using namespace quillon;
    return answer(caller, [&] { requireSigned(textOf(path)); });
}

int verifyDigest(void* /*reserved*/, const unsigned char* sha256, const unsigned char* trailer,
                 int trailer_size, const char* path, const char* caller)
{
    using namespace quillon;
    return answer(caller, [&] { requireSigned(sha256, trailer, trailer_size, textOf(path)); });
}
