#include "trusted-keys.h"

#include <algorithm>
#include <filesystem>
#include <vector>

#include "image-error.h"
#include "openssl-handle.h"
#include "public-key.h"

namespace quillon {
namespace {

std::vector<std::string> keyFilesIn(const std::string& folder, const std::string& signedPath)
{
    std::vector<std::string> files;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
        if (entry->path().extension() == ".pem") {
            files.push_back(entry->path().string());
        }
    }
    if (error) {
        throw notSigned(signedPath,
                        "trusted keys in " + folder + " cannot be read: " + error.message());
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
                                    const std::function<ContentDigest()>& digest,
                                    const std::string& folder,
                                    const std::function<void(const std::string&)>& complain)
{
    const KeyId& wanted = trailer.keyId;
    for (const std::string& keyPath : keyFilesIn(folder, path)) {
        const UniqueKey key = loadUsableKey(keyPath, complain);
        if (key && keyIdOf(key.get()) == wanted) {
            requireSignature(trailer, digest(), key.get(), path);
            return keyPath;
        }
    }
    throw notSigned(path, "no trusted key with the id " + toText(wanted) + " in " + folder);
}

}  // namespace quillon
