#include "support/image.h"

#include <openssl/evp.h>

#include <algorithm>
#include <memory>
#include <random>
#include <stdexcept>

namespace quillon::test {
namespace {

using Context = std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)>;

void require(int result)
{
    if (result != 1) {
        throw std::runtime_error("OpenSSL refused");
    }
}

const unsigned char* keyOf(const std::string& keyText)
{
    if (keyText.size() < 32) {
        throw std::runtime_error("a key text of the tests has at least 32 characters");
    }
    return reinterpret_cast<const unsigned char*>(keyText.data());
}

}  // namespace

Bytes bytesOf(const std::string& text)
{
    return Bytes(text.begin(), text.end());
}

Bytes noise(std::size_t size, unsigned int seed)
{
    std::mt19937 generator(seed);
    Bytes bytes(size);
    std::generate(bytes.begin(), bytes.end(),
                  [&generator] { return static_cast<unsigned char>(generator() & 0xFFU); });
    return bytes;
}

Bytes operator+(Bytes left, const Bytes& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

Bytes encipher(const Bytes& plain, const std::string& keyText, const Bytes& iv, bool withPadding)
{
    const Context context(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    require(
        EVP_EncryptInit_ex(context.get(), EVP_aes_256_cbc(), nullptr, keyOf(keyText), iv.data()));
    EVP_CIPHER_CTX_set_padding(context.get(), withPadding ? 1 : 0);
    Bytes cipher(plain.size() + EVP_MAX_BLOCK_LENGTH);
    int size = 0;
    int last = 0;
    require(EVP_EncryptUpdate(context.get(), cipher.data(), &size, plain.data(),
                              static_cast<int>(plain.size())));
    require(EVP_EncryptFinal_ex(context.get(), cipher.data() + size, &last));
    cipher.resize(static_cast<std::size_t>(size + last));
    return cipher;
}

Bytes decipher(const Bytes& cipher, const std::string& keyText, const Bytes& iv)
{
    const Context context(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    require(
        EVP_DecryptInit_ex(context.get(), EVP_aes_256_cbc(), nullptr, keyOf(keyText), iv.data()));
    Bytes plain(cipher.size() + EVP_MAX_BLOCK_LENGTH);
    int size = 0;
    int last = 0;
    if (!cipher.empty()) {
        require(EVP_DecryptUpdate(context.get(), plain.data(), &size, cipher.data(),
                                  static_cast<int>(cipher.size())));
    }
    if (EVP_DecryptFinal_ex(context.get(), plain.data() + size, &last) != 1) {
        last = 0;
    }
    plain.resize(static_cast<std::size_t>(size + last));
    return plain;
}

Image& Image::version(const std::string& text)
{
    version_ = text;
    return *this;
}

Image& Image::payload(const Bytes& bytes)
{
    payload_ = bytes;
    return *this;
}

Image& Image::plain(const Bytes& bytes)
{
    plain_ = bytes;
    return *this;
}

Image& Image::cipherText(const Bytes& bytes)
{
    cipherText_ = bytes;
    return *this;
}

Image& Image::encipheredWith(const std::string& keyText)
{
    keyText_ = keyText;
    return *this;
}

Image& Image::trailer(const Bytes& bytes)
{
    trailer_ = bytes;
    return *this;
}

Image& Image::cutTo(std::size_t size)
{
    size_ = size;
    return *this;
}

Bytes Image::iv()
{
    return noise(kIvSize, 16);
}

Bytes Image::bytes() const
{
    Bytes header = bytesOf(version_);
    header.resize(kHeaderSize);
    const Bytes plain = plain_.value_or(header + payload_);
    const Bytes cipher = cipherText_ ? *cipherText_ : encipher(plain, keyText_, iv());
    Bytes image = iv() + cipher + trailer_;
    image.resize(std::min(size_.value_or(image.size()), image.size()));
    return image;
}

}  // namespace quillon::test
