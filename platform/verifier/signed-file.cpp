#include "platform/verifier/signed-file.h"

#include "base/handles.h"
#include "platform/verifier/image-error.h"

namespace quillon {
namespace {

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

    file_.readPieces(0, contentSize(), [&](const unsigned char* data, std::size_t length) {
        require(EVP_DigestUpdate(digest.get(), data, length) == 1);
    });
    ContentDigest content{};
    require(EVP_DigestFinal_ex(digest.get(), content.data(), nullptr) == 1);
    return content;
}

}  // namespace quillon
