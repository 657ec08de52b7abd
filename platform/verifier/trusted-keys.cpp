#include "platform/verifier/trusted-keys.h"

#include <optional>
#include <system_error>
#include <vector>

#include "base/handles.h"
#include "platform/verifier/image-error.h"
#include "platform/verifier/public-key.h"

namespace quillon {
namespace {

/// @return null for a key file that is of no use.
UniqueKey loadUsableKey(const std::string& path, const Complain& complain)
{
    try {
        return loadPublicKey(path);
    } catch (const ImageError& error) {
        complain(std::string("key passed over: ") + error.what());
        return nullptr;
    }
}

}  // namespace

std::string requireTrustedSignature(const ImageTrailer& trailer, const std::string& path,
                                    const ImagePurpose& purpose,
                                    const std::function<ContentDigest()>& digest,
                                    const std::string& directory, const Complain& complain)
{
    std::error_code problem;
    const std::vector<std::string> keyPaths = pemFilesIn(directory, problem);
    if (problem) {
        throw notSigned(path,
                        "trusted keys in " + directory + " cannot be read: " + problem.message());
    }
    std::optional<ContentDigest> content;
    std::optional<ImageError> refusal;
    for (const std::string& keyPath : keyPaths) {
        const UniqueKey key = loadUsableKey(keyPath, complain);
        if (!key || !namesKey(trailer, keyIdOf(key.get()))) {
            continue;
        }
        content = content ? content : digest();
        try {
            requireSignature(trailer, *content, purpose, key.get(), path);
            return keyPath;
        } catch (const ImageError& error) {
            refusal = error;  // two keys may have the same short id
        }
    }
    throw refusal
        ? *refusal
        : notSigned(path, "no trusted key with the id " + keyIdText(trailer) + " in " + directory);
}

}  // namespace quillon
