#include "tools/quillon-image/stick-image.h"

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <vector>

#include "platform/verifier/image-error.h"
#include "platform/verifier/input-file.h"
#include "platform/verifier/public-key.h"
#include "platform/verifier/signed-file.h"
#include "platform/verifier/trusted-keys.h"
#include "tools/quillon-image/atomic-file.h"

namespace quillon {
namespace {

constexpr std::size_t kSmallestImage = kInitialisationVectorSize + kCipherBlockSize + kTrailerSize;

using Bytes = std::vector<unsigned char>;

bool isPrintable(unsigned char character)
{
    return character >= 0x20 && character <= 0x7E;
}

/// Reads the header at the start of a plaintext. A wrong key leaves noise here, which is never text
/// followed by NULs only.
std::string decodeVersion(const Bytes& plaintext, const std::string& path)
{
    const auto headerEnd = plaintext.begin() + kVersionHeaderSize;
    const auto textEnd = std::find(plaintext.begin(), headerEnd, '\0');
    const bool isPadded =
        textEnd != headerEnd && std::count(textEnd, headerEnd, '\0') == headerEnd - textEnd;
    if (!isPadded || textEnd == plaintext.begin() ||
        !std::all_of(plaintext.begin(), textEnd, isPrintable)) {
        throw ImageError(ImageFault::kKey, path + ": wrong image key: no version header comes out");
    }
    return {plaintext.begin(), textEnd};
}

ImageError noWholeVersionHeader(const std::string& path)
{
    return {ImageFault::kFormat, path + ": not a stick image: no whole version header"};
}

/// AES-256-CBC with PKCS#7 padding, in one direction.
class Cipher
{
public:
    enum Direction { kDecipher = 0, kEncipher = 1 };

    Cipher(const ImageKey& key, const InitialisationVector& vector, Direction direction)
        : context_(EVP_CIPHER_CTX_new())
    {
        if (!context_ || EVP_CipherInit_ex(context_.get(), EVP_aes_256_cbc(), nullptr, key.data(),
                                           vector.data(), direction) != 1) {
            throw ImageError(ImageFault::kKey, "AES-256-CBC cannot be set up");
        }
    }

    /// @return the output bytes; valid until the next call.
    const Bytes& update(const unsigned char* data, std::size_t length)
    {
        output_.resize(length + kCipherBlockSize);
        int written = 0;
        if (EVP_CipherUpdate(context_.get(), output_.data(), &written, data,
                             static_cast<int>(length)) != 1) {
            throw ImageError(ImageFault::kKey, "AES-256-CBC failed");
        }
        output_.resize(static_cast<std::size_t>(written));
        return output_;
    }

    /// Ends the stream.
    /// @return the last bytes; nothing when deciphering and the padding is wrong.
    std::optional<Bytes> finish()
    {
        Bytes output(kCipherBlockSize);
        int written = 0;
        if (EVP_CipherFinal_ex(context_.get(), output.data(), &written) != 1) {
            return std::nullopt;
        }
        output.resize(static_cast<std::size_t>(written));
        return output;
    }

private:
    UniqueCipherContext context_;
    Bytes output_;
};

/// A file that is signed when it is written.
class SignedOutput
{
public:
    explicit SignedOutput(const std::string& path)
        : file_(path, Audience::kEveryone), digest_(EVP_MD_CTX_new())
    {
        require(digest_ && EVP_DigestInit_ex(digest_.get(), EVP_sha256(), nullptr) == 1);
    }

    void write(const unsigned char* data, std::size_t length)
    {
        size_ += length;
        if (size_ + kTrailerSize > kLargestImage) {
            throw ImageError(ImageFault::kFormat, "payload too large: an image stays below 2 GiB");
        }
        require(EVP_DigestUpdate(digest_.get(), data, length) == 1);
        file_.write(data, length);
    }

    void write(const Bytes& data) { write(data.data(), data.size()); }

    void commit(const std::optional<ImagePurpose>& purpose, EVP_PKEY* key)
    {
        ContentDigest content{};
        require(EVP_DigestFinal_ex(digest_.get(), content.data(), nullptr) == 1);
        const TrailerBytes bytes = encodeTrailer(signImage(content, purpose, key));
        file_.write(bytes.data(), bytes.size());
        file_.commit();
    }

private:
    static void require(bool done)
    {
        if (!done) {
            throw ImageError(ImageFault::kKey, "SHA-256 cannot be computed");
        }
    }

    AtomicFile file_;
    UniqueDigestContext digest_;
    std::uint64_t size_ = 0;
};

void requirePossibleSize(const InputFile& file)
{
    const std::string start =
        file.path() + ": not a stick image: " + std::to_string(file.size()) + " bytes ";
    if (file.size() < kSmallestImage) {
        throw ImageError(ImageFault::kFormat, start + "are too few");
    }
    if (file.size() > kLargestImage) {
        throw ImageError(ImageFault::kFormat, start + "are too many, an image stays below 2 GiB");
    }
    if ((file.size() - kSmallestImage) % kCipherBlockSize != 0) {
        throw ImageError(ImageFault::kFormat, start + "leave no whole number of cipher blocks");
    }
}

/// @return the image, whose size and trailer header are right.
SignedFile openStickImage(const std::string& path)
{
    // Looked at first, since "not a stick image" tells more than "no signature".
    requirePossibleSize(InputFile(path));
    return SignedFile(path);
}

InitialisationVector readVector(const SignedFile& image)
{
    InitialisationVector vector{};
    image.file().readAt(0, vector.data(), vector.size());
    return vector;
}

void requireModule(const std::string& module)
{
    if (!isModuleName(module)) {
        throw ImageError(ImageFault::kUsage,
                         "a module's name has 1 to 124 ASCII letters and digits");
    }
}

void requirePurpose(const ImagePurpose& purpose)
{
    requireModule(purpose.module);
    if (!isModelName(purpose.model)) {
        throw ImageError(ImageFault::kUsage,
                         "a model has 1 to 64 printable ASCII characters, no blank at its ends");
    }
}

InitialisationVector randomVector()
{
    InitialisationVector vector{};
    if (RAND_bytes(vector.data(), static_cast<int>(vector.size())) != 1) {
        throw ImageError(ImageFault::kKey, "no random numbers for the initialisation vector");
    }
    return vector;
}

}  // namespace

void requireVersion(const std::string& version)
{
    if (version.empty() || version.size() >= kVersionHeaderSize ||
        !std::all_of(version.begin(), version.end(), isPrintable)) {
        throw ImageError(ImageFault::kUsage, "a version has 1 to 63 printable ASCII characters");
    }
}

void buildStickImage(const std::string& version, const std::string& payloadPath,
                     const ImageKey& imageKey, EVP_PKEY* signingKey, const std::string& outputPath,
                     const std::optional<ImagePurpose>& purpose)
{
    requireVersion(version);
    Bytes header(version.begin(), version.end());
    header.resize(kVersionHeaderSize);
    if (purpose) {
        requirePurpose(*purpose);
    }
    const InitialisationVector vector = randomVector();
    const InputFile payload(payloadPath);
    if (payload.size() > kLargestImage - kSmallestImage - kVersionHeaderSize) {
        throw ImageError(ImageFault::kFormat,
                         payloadPath + ": too large: an image stays below 2 GiB");
    }

    Cipher cipher(imageKey, vector, Cipher::kEncipher);
    SignedOutput output(outputPath);
    output.write(vector.data(), vector.size());
    output.write(cipher.update(header.data(), header.size()));
    payload.readPieces(0, payload.size(), [&](const unsigned char* data, std::size_t length) {
        output.write(cipher.update(data, length));
    });
    output.write(cipher.finish().value());
    output.commit(purpose, signingKey);
}

std::string stickImagePath(const std::string& directory, const std::string& module)
{
    requireModule(module);
    return directory + (directory.empty() || directory.back() == '/' ? "" : "/") + module + ".bin";
}

StickImageInfo inspectStickImage(const std::string& path)
{
    const SignedFile image = openStickImage(path);
    StickImageInfo info;
    info.size = image.file().size();
    info.ciphertextSize = image.contentSize() - kInitialisationVectorSize;
    info.vector = readVector(image);
    info.trailer = image.trailer();
    return info;
}

std::string readStickImageVersion(const std::string& path, const ImageKey& imageKey)
{
    const SignedFile image = openStickImage(path);
    if (image.contentSize() < kInitialisationVectorSize + kVersionHeaderSize + kCipherBlockSize) {
        throw noWholeVersionHeader(path);
    }
    // One block more than the header: the cipher keeps the latest block back until the next comes.
    std::array<unsigned char, kVersionHeaderSize + kCipherBlockSize> start{};
    image.file().readAt(kInitialisationVectorSize, start.data(), start.size());
    Cipher cipher(imageKey, readVector(image), Cipher::kDecipher);
    return decodeVersion(cipher.update(start.data(), start.size()), path);
}

std::string extractStickImage(const std::string& path, const ImageKey& imageKey,
                              const std::string& payloadPath)
{
    const SignedFile image = openStickImage(path);
    Cipher cipher(imageKey, readVector(image), Cipher::kDecipher);
    AtomicFile payload(payloadPath, Audience::kOwnerOnly);
    std::string version;
    image.file().readPieces(kInitialisationVectorSize, image.contentSize(),
                            [&](const unsigned char* data, std::size_t length) {
                                const Bytes& plaintext = cipher.update(data, length);
                                std::size_t start = 0;
                                // The first piece holds the whole version header, or there is none.
                                // A wrong key is found before the long rest.
                                if (version.empty() && plaintext.size() >= kVersionHeaderSize) {
                                    version = decodeVersion(plaintext, path);
                                    start = kVersionHeaderSize;
                                }
                                payload.write(plaintext.data() + start, plaintext.size() - start);
                            });
    const std::optional<Bytes> lastBytes = cipher.finish();
    if (!lastBytes) {
        throw ImageError(ImageFault::kKey,
                         path + ": wrong padding: wrong image key or damaged image");
    }
    if (version.empty()) {
        throw noWholeVersionHeader(path);
    }
    payload.write(lastBytes->data(), lastBytes->size());
    payload.commit();
    return version;
}

void verifyStickImage(const std::string& path, const std::string& publicKeyPath,
                      const TrustPolicy& policy)
{
    const UniqueKey key = loadPublicKey(publicKeyPath);
    const SignedFile image = openStickImage(path);
    const ImagePurpose purpose = requireAllowed(image.trailer(), path, policy);
    if (!namesKey(image.trailer(), keyIdOf(key.get()))) {
        throw notSigned(path, "the signing key has the id " + keyIdText(image.trailer()) +
                                  ", not that of " + publicKeyPath);
    }
    requireSignature(image.trailer(), image.contentDigest(), purpose, key.get(), path);
}

std::string verifyStickImageByDirectory(const std::string& path, const std::string& directory,
                                        const Complain& complain, const TrustPolicy& policy)
{
    const SignedFile image = openStickImage(path);
    return requireTrustedSignature(
        image.trailer(), path, requireAllowed(image.trailer(), path, policy),
        [&image] { return image.contentDigest(); }, directory, complain);
}

}  // namespace quillon
