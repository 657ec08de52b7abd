#include "platform/secure-storage.h"

#include <malloc.h>

#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>

#include "base/secret-bytes.h"
#include "platform/linux/storage-client.h"
#include "platform/log/platform-log.h"
#include "platform/storage/item-store.h"

namespace quillon {
namespace {

/// The helper where there is one; it may be the only one with the right to the storage.
int read(const char* item, SecretBytes& bytes)
{
    const auto answer = readThroughHelper(item, bytes);
    return answer ? *answer : readItem(item, bytes);
}

unsigned char* makeBuffer(const SecretBytes& bytes)
{
    auto* data = static_cast<unsigned char*>(std::malloc(bytes.size()));
    if (data == nullptr) {
        throw std::bad_alloc();
    }
    std::memcpy(data, bytes.data(), bytes.size());
    return data;
}

}  // namespace
}  // namespace quillon

// The helper knows its callers by what the kernel says of them, and on disk the file's mode
// decides. The struct keeps what the caller says of itself; nothing here relies on it.
int ss_init_credential(ss_credential* credential, uint32_t word0, uint32_t word1, uint32_t word2,
                       uint32_t word3, uint32_t word4, int flag0, int flag1)
{
    if (credential == nullptr) {
        return quillon::kStoreBadArgument;
    }
    *credential = {{word0, word1, word2, word3, word4}, {flag0, flag1}, {}};
    return quillon::kStoreOk;
}

int ss_read(unsigned char** data, size_t* size, int /*reserved0*/, int /*reserved1*/,
            const char* item, ss_credential* credential, unsigned int /*mode*/)
{
    using namespace quillon;
    if (data == nullptr || size == nullptr || item == nullptr || credential == nullptr) {
        PLATFORM_LOGE("a secure-storage read without data, size, item or credential");
        return kStoreBadArgument;
    }
    try {
        SecretBytes bytes;
        const int result = read(item, bytes);
        if (result != kStoreOk) {
            return result;
        }
        *data = makeBuffer(bytes);
        *size = bytes.size();
        return kStoreOk;
    } catch (const std::exception& error) {
        PLATFORM_LOGE("%s cannot be read: %s", item, error.what());
        return kStoreFailed;
    }
}

void ss_free_buffer(unsigned char* data)
{
    if (data != nullptr) {
        explicit_bzero(data, malloc_usable_size(data));
    }
    std::free(data);
}
