#include "reference/plain-decipher.h"

#include <openssl/evp.h>

#include <cstdlib>

namespace quillon::bench {
namespace {

constexpr std::size_t kBlock = 10240;
constexpr int kTrailer = 534;

}  // namespace

unsigned char* decipherPlainly(std::FILE* file, const unsigned char* key, const unsigned char* iv,
                               int count, int& outlen)
{
    auto* input = static_cast<unsigned char*>(std::malloc(kBlock));
    auto* output = static_cast<unsigned char*>(std::calloc(static_cast<std::size_t>(count), 1));
    EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
    if (input == nullptr || output == nullptr || context == nullptr) {
        EVP_CIPHER_CTX_free(context);
        std::free(output);
        std::free(input);
        return nullptr;
    }
    EVP_CipherInit(context, EVP_aes_256_cbc(), key, iv, 0);

    const int limit = count - kTrailer;
    int read = 0;
    int written = 0;
    int chunk = 0;
    std::size_t n = 0;
    do {
        n = std::fread(input, 1, kBlock, file);
        read += static_cast<int>(n);
        int fed = static_cast<int>(n);
        if (read > limit) {
            fed -= read - limit;
        }
        if (fed > 0) {
            EVP_CipherUpdate(context, output + written, &chunk, input, fed);
            written += chunk;
        }
    } while (n == kBlock);
    chunk = 0;
    EVP_CipherFinal(context, output + written, &chunk);
    outlen = written + chunk;

    std::free(input);
    EVP_CIPHER_CTX_free(context);
    return output;
}

}  // namespace quillon::bench
