#include "tools/quillon-image/stick-image.h"

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <vector>

#include "platform/verifier/hex-text.h"
#include "platform/verifier/image-error.h"
#include "platform/verifier/input-file.h"
#include "platform/verifier/public-key.h"
#include "platform/verifier/signed-file.h"
#include "platform/verifier/trusted-keys.h"
#include "tools/quillon-image/atomic-file.h"
#include "tools/quillon-image/reproducible-signature.h"
#include "tools/quillon-image/scratch-directory.h"

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

/// SHA-256 over what comes in pieces.
class Digest
{
public:
    Digest() : context_(EVP_MD_CTX_new())
    {
        require(context_ && EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) == 1);
    }

    void add(const unsigned char* data, std::size_t length)
    {
        require(EVP_DigestUpdate(context_.get(), data, length) == 1);
    }

    ContentDigest finish()
    {
        ContentDigest digest{};
        require(EVP_DigestFinal_ex(context_.get(), digest.data(), nullptr) == 1);
        return digest;
    }

    std::string finishAsText()
    {
        const ContentDigest digest = finish();
        return hexText(digest.data(), digest.size());
    }

private:
    static void require(bool done)
    {
        if (!done) {
            throw ImageError(ImageFault::kKey, "SHA-256 cannot be computed");
        }
    }

    UniqueDigestContext context_;
};

/// A file that is signed when it is written.
class SignedOutput
{
public:
    explicit SignedOutput(const std::string& path) : file_(path, Audience::kEveryone) {}

    void write(const unsigned char* data, std::size_t length)
    {
        signals_.requireNone();
        size_ += length;
        if (size_ + kTrailerSize > kLargestImage) {
            throw ImageError(ImageFault::kFormat, "payload too large: an image stays below 2 GiB");
        }
        digest_.add(data, length);
        file_.write(data, length);
    }

    void write(const Bytes& data) { write(data.data(), data.size()); }

    /// @return the digest of all that was written. Nothing more may be.
    ContentDigest finish() { return digest_.finish(); }

    void commit(const ContentDigest& content, const std::optional<ImagePurpose>& purpose,
                EVP_PKEY* key, Making making)
    {
        const ImageTrailer trailer = making == Making::kRandom
                                         ? signImage(content, purpose, key)
                                         : signImageReproducibly(content, purpose, key);
        const TrailerBytes bytes = encodeTrailer(trailer);
        file_.write(bytes.data(), bytes.size());
        file_.commit();
    }

private:
    HeldSignals signals_;
    AtomicFile file_;
    Digest digest_;
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

InitialisationVector randomVector()
{
    InitialisationVector vector{};
    if (RAND_bytes(vector.data(), static_cast<int>(vector.size())) != 1) {
        throw ImageError(ImageFault::kKey, "no random numbers for the initialisation vector");
    }
    return vector;
}

/// A vector that only holders of the key can tell from a random one: HMAC-SHA-256 of the plaintext.
InitialisationVector contentVector(const ImageKey& key, const Bytes& header,
                                   const InputFile& payload)
{
    const auto require = [](bool done) {
        if (!done) {
            throw ImageError(ImageFault::kKey, "HMAC-SHA-256 cannot be computed");
        }
    };
    const UniqueKey macKey(
        EVP_PKEY_new_raw_private_key(EVP_PKEY_HMAC, nullptr, key.data(), key.size()));
    const UniqueDigestContext context(EVP_MD_CTX_new());
    require(macKey && context &&
            EVP_DigestSignInit(context.get(), nullptr, EVP_sha256(), nullptr, macKey.get()) == 1 &&
            EVP_DigestSignUpdate(context.get(), header.data(), header.size()) == 1);
    payload.readPieces(0, payload.size(), [&](const unsigned char* data, std::size_t length) {
        require(EVP_DigestSignUpdate(context.get(), data, length) == 1);
    });
    ContentDigest code{};
    std::size_t length = code.size();
    require(EVP_DigestSignFinal(context.get(), code.data(), &length) == 1);
    InitialisationVector vector{};
    std::copy_n(code.begin(), vector.size(), vector.begin());
    return vector;
}

/// Deciphers an image and hands the payload to a consumer. Checks the version header and padding.
/// @return the version text.
std::string decipher(const SignedFile& image, const ImageKey& imageKey,
                     const std::function<void(const unsigned char*, std::size_t)>& consume)
{
    const std::string& path = image.file().path();
    Cipher cipher(imageKey, readVector(image), Cipher::kDecipher);
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
                                consume(plaintext.data() + start, plaintext.size() - start);
                            });
    const std::optional<Bytes> lastBytes = cipher.finish();
    if (!lastBytes) {
        throw ImageError(ImageFault::kKey,
                         path + ": wrong padding: wrong image key or damaged image");
    }
    if (version.empty()) {
        throw noWholeVersionHeader(path);
    }
    consume(lastBytes->data(), lastBytes->size());
    return version;
}

}  // namespace

void requireVersion(const std::string& version)
{
    if (version.empty() || version.size() >= kVersionHeaderSize ||
        !std::all_of(version.begin(), version.end(), isPrintable)) {
        throw ImageError(ImageFault::kUsage, "a version has 1 to 63 printable ASCII characters");
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

void buildStickImage(const std::string& version, const std::string& payloadPath,
                     const ImageKey& imageKey, EVP_PKEY* signingKey, const std::string& outputPath,
                     const std::optional<ImagePurpose>& purpose, Making making)
{
    requireVersion(version);
    Bytes header(version.begin(), version.end());
    header.resize(kVersionHeaderSize);
    if (purpose) {
        requirePurpose(*purpose);
    }
    const InputFile payload(payloadPath);
    if (payload.size() > kLargestImage - kSmallestImage - kVersionHeaderSize) {
        throw ImageError(ImageFault::kFormat,
                         payloadPath + ": too large: an image stays below 2 GiB");
    }

    SignedOutput output(outputPath);
    const InitialisationVector vector =
        making == Making::kRandom ? randomVector() : contentVector(imageKey, header, payload);
    Cipher cipher(imageKey, vector, Cipher::kEncipher);
    output.write(vector.data(), vector.size());
    output.write(cipher.update(header.data(), header.size()));
    payload.readPieces(0, payload.size(), [&](const unsigned char* data, std::size_t length) {
        output.write(cipher.update(data, length));
    });
    output.write(cipher.finish().value());
    const ContentDigest content = output.finish();
    output.commit(content, purpose, signingKey, making);
}

void resignStickImage(const std::string& path, const Resigner& judge, EVP_PKEY* signingKey,
                      const std::string& outputPath, Making making)
{
    const SignedFile image = openStickImage(path);
    SignedOutput output(outputPath);
    image.file().readPieces(
        0, image.contentSize(),
        [&output](const unsigned char* data, std::size_t length) { output.write(data, length); });
    const ContentDigest content = output.finish();
    const std::optional<ImagePurpose> purpose = judge(image.trailer(), content);
    if (purpose) {
        requirePurpose(*purpose);
    }
    output.commit(content, purpose, signingKey, making);
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
    AtomicFile payload(payloadPath, Audience::kOwnerOnly);
    std::string version = decipher(
        image, imageKey,
        [&payload](const unsigned char* data, std::size_t length) { payload.write(data, length); });
    payload.commit();
    return version;
}

StickImageDigests digestStickImage(const std::string& path, const std::optional<ImageKey>& key)
{
    const SignedFile image = openStickImage(path);
    Digest ciphertext;
    Digest signature;
    Digest payload;
    const auto addTo = [](Digest& digest) {
        return
            [&digest](const unsigned char* data, std::size_t length) { digest.add(data, length); };
    };
    image.file().readPieces(kInitialisationVectorSize, image.contentSize(), addTo(ciphertext));
    signature.add(image.trailer().signature.data(), kSignatureSize);
    if (key) {
        decipher(image, *key, addTo(payload));
    }
    return {ciphertext.finishAsText(), signature.finishAsText(), key ? payload.finishAsText() : ""};
}

std::string requireSignedBy(const Signers& signers, const ImageTrailer& trailer,
                            const std::string& path, const ImagePurpose& purpose,
                            const std::function<ContentDigest()>& digest)
{
    if (signers.publicKey.empty()) {
        return requireTrustedSignature(trailer, path, purpose, digest, signers.directory,
                                       signers.complain);
    }
    const UniqueKey key = loadPublicKey(signers.publicKey);
    if (!namesKey(trailer, keyIdOf(key.get()))) {
        throw notSigned(path, "the signing key has the id " + keyIdText(trailer) +
                                  ", not that of " + signers.publicKey);
    }
    requireSignature(trailer, digest(), purpose, key.get(), path);
    return signers.publicKey;
}

std::string verifyStickImage(const std::string& path, const Signers& signers,
                             const TrustPolicy& policy)
{
    const SignedFile image = openStickImage(path);
    return requireSignedBy(signers, image.trailer(), path,
                           requireAllowed(image.trailer(), path, policy),
                           [&image] { return image.contentDigest(); });
}

}  // namespace quillon
