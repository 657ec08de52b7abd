#include "platform/verifier/signed-file.h"

#include <algorithm>
#include <vector>

#include "base/handles.h"
#include "platform/verifier/image-error.h"

namespace quillon {
namespace {

constexpr std::size_t kChunkSize = 65536;

/// In bytes. The service takes no more either, and a file with a hole may seem to have any number.
constexpr std::uint64_t kLargestFile = 2147483647;

ImageTrailer readTrailer(const InputFile& file)
{
    if (file.size() > kLargestFile) {
        throw notSigned(file.path(),
                        "longer than " + std::to_string(kLargestFile) + " bytes, the most");
    }
    if (file.size() < kTrailerSize) {
        throw notSigned(file.path(), "too short for a signature trailer");
    }
    TrailerBytes bytes{};
    file.readAt(file.size() - kTrailerSize, bytes.data(), bytes.size());
    return parseTrailer(bytes, file.path());
}

}  // namespace

SignedFile::SignedFile(const std::string& path) : file_(path), trailer_(readTrailer(file_))
{
}

ContentDigest SignedFile::contentDigest() const
{
    const auto require = [this](bool done) {
        if (!done) {
            throw notSigned(file_.path(), "signature cannot be checked");
        }
    };
    const UniqueDigestContext digest(EVP_MD_CTX_new());
    require(digest && EVP_DigestInit_ex(digest.get(), EVP_sha256(), nullptr) == 1);

    std::vector<unsigned char> chunk(kChunkSize);
    const std::uint64_t end = contentSize();
    for (std::uint64_t offset = 0; offset < end;) {
        const auto length =
            static_cast<std::size_t>(std::min<std::uint64_t>(chunk.size(), end - offset));
        file_.readAt(offset, chunk.data(), length);
        require(EVP_DigestUpdate(digest.get(), chunk.data(), length) == 1);
        offset += length;
    }

    ContentDigest content{};
    require(EVP_DigestFinal_ex(digest.get(), content.data(), nullptr) == 1);
    return content;
}

}  // namespace quillon
