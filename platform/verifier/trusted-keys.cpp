#include "platform/verifier/trusted-keys.h"

#include <algorithm>
#include <filesystem>
#include <optional>
#include <vector>

#include "platform/verifier/image-error.h"
#include "platform/verifier/openssl-handle.h"
#include "platform/verifier/public-key.h"

namespace quillon {
namespace {

std::vector<std::string> keyFilesIn(const std::string& directory, const std::string& signedPath)
{
    std::vector<std::string> files;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error)) {
        if (entry->path().extension() == ".pem") {
            files.push_back(entry->path().string());
        }
    }
    if (error) {
        throw notSigned(signedPath,
                        "trusted keys in " + directory + " cannot be read: " + error.message());
    }
    std::sort(files.begin(), files.end());
    return files;
}

/// @return null for a key file that is of no use.
UniqueKey loadUsableKey(const std::string& path,
                        const std::function<void(const std::string&)>& complain)
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
                                    const std::string& directory,
                                    const std::function<void(const std::string&)>& complain)
{
    std::optional<ContentDigest> content;
    std::optional<ImageError> refusal;
    for (const std::string& keyPath : keyFilesIn(directory, path)) {
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
