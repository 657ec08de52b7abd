#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace quillon::test {

using Bytes = std::vector<unsigned char>;

/// Text of the image key that the tests use, as the service publishes it. Its first 32 characters
/// are the key of the cipher.
inline constexpr char kKeyText[] =
    "000102030405060708090a0b0c0d0e0ff0f1f2f3f4f5f6f7f8f9fafbfcfdfeff";

inline constexpr std::size_t kIvSize = 16;
inline constexpr std::size_t kHeaderSize = 64;
inline constexpr std::size_t kTrailerSize = 534;

/// The bytes of a text.
Bytes bytesOf(const std::string& text);

/// So many bytes that look like noise and are the same in every run.
Bytes noise(std::size_t size, unsigned int seed = 1);

Bytes operator+(Bytes left, const Bytes& right);

/// AES-256-CBC in one piece through OpenSSL, with padding unless said otherwise; raises
/// std::runtime_error when OpenSSL refuses.
Bytes encipher(const Bytes& plain, const std::string& keyText, const Bytes& iv,
               bool withPadding = true);

/// What deciphering in one piece gives; a last block whose padding is wrong is left out.
Bytes decipher(const Bytes& cipher, const std::string& keyText, const Bytes& iv);

/// An enciphered image as it lies on a stick, described in words.
class Image
{
public:
    /// The text in the version header.
    Image& version(const std::string& text);
    Image& payload(const Bytes& bytes);
    /// The whole plain text, in the place of header and payload.
    Image& plain(const Bytes& bytes);
    /// The whole cipher text, in the place of an enciphered plain text.
    Image& cipherText(const Bytes& bytes);
    Image& encipheredWith(const std::string& keyText);
    Image& trailer(const Bytes& bytes);
    /// Only the first bytes of the file.
    Image& cutTo(std::size_t size);

    static Bytes iv();
    Bytes bytes() const;

private:
    std::string version_ = "2.0";
    Bytes payload_ = bytesOf("payload");
    std::optional<Bytes> plain_;
    std::optional<Bytes> cipherText_;
    std::string keyText_ = kKeyText;
    Bytes trailer_ = noise(kTrailerSize, 534);
    std::optional<std::size_t> size_;
};

}  // namespace quillon::test
