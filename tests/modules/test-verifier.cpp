// A verifier for tests: the test decides its answer. Without the recording platform in the process
// the answer is the number in /etc/quillon-test/verifier.conf, 1 when that is missing.

#include <fstream>
#include <string>

#include "platform/verifier.h"

namespace quillon::fakes {

__attribute__((weak)) int answerVerifier(void* reserved, const char* path, const char* caller);
__attribute__((weak)) int answerDigestVerifier(void* reserved, const unsigned char* sha256,
                                               const unsigned char* trailer, int trailerSize,
                                               const char* path, const char* caller);

}  // namespace quillon::fakes

#ifdef WITHOUT_verifyFile
__attribute__((visibility("default"))) int anotherEntry = 0;
#else
__attribute__((visibility("default"))) int verifyFile(void* reserved, const char* path,
                                                      const char* caller)
{
    if (quillon::fakes::answerVerifier != nullptr) {
        return quillon::fakes::answerVerifier(reserved, path, caller);
    }
    std::ifstream file("/etc/quillon-test/verifier.conf");
    int answer = 1;
    file >> answer;
    return file.fail() ? 1 : answer;
}
#endif

#ifdef WITH_verifyDigest
__attribute__((visibility("default"))) int verifyDigest(void* reserved, const unsigned char* sha256,
                                                        const unsigned char* trailer,
                                                        int trailer_size, const char* path,
                                                        const char* caller)
{
    return quillon::fakes::answerDigestVerifier == nullptr
               ? 1
               : quillon::fakes::answerDigestVerifier(reserved, sha256, trailer, trailer_size, path,
                                                      caller);
}
#endif
