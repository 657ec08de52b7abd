#ifndef QUILLON_SUPPORT_UNIQUE_HANDLES_H
#define QUILLON_SUPPORT_UNIQUE_HANDLES_H

#include <dlfcn.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

/// Owners of everything that must be given back: each gives its handle back exactly once.
namespace quillon {

struct FileCloser
{
    void operator()(std::FILE* file) const { static_cast<void>(std::fclose(file)); }
};
/// An open stream; empty when opening failed.
using UniqueFile = std::unique_ptr<std::FILE, FileCloser>;

struct CipherContextFreer
{
    void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};
/// An OpenSSL cipher context.
using UniqueCipherContext = std::unique_ptr<EVP_CIPHER_CTX, CipherContextFreer>;

struct DigestContextFreer
{
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};
/// An OpenSSL digest context.
using UniqueDigestContext = std::unique_ptr<EVP_MD_CTX, DigestContextFreer>;

struct MemoryFreer
{
    void operator()(void* memory) const { std::free(memory); }
};
/// Memory from malloc, calloc or a platform call that asks for free().
template <typename T>
using UniqueMemory = std::unique_ptr<T, MemoryFreer>;

struct LibraryCloser
{
    void operator()(void* handle) const
    {
        if (handle != nullptr) {
            static_cast<void>(dlclose(handle));
        }
    }
};
/// A handle of dlopen that copies share; it is closed once, after the last of them.
using SharedLibrary = std::shared_ptr<void>;

/// An open file descriptor; -1 when empty.
class UniqueDescriptor
{
public:
    explicit UniqueDescriptor(int descriptor = -1) : descriptor_(descriptor) {}
    ~UniqueDescriptor()
    {
        if (descriptor_ != -1) {
            static_cast<void>(::close(descriptor_));
        }
    }
    UniqueDescriptor(const UniqueDescriptor&) = delete;
    UniqueDescriptor& operator=(const UniqueDescriptor&) = delete;

    int get() const { return descriptor_; }
    int release() { return std::exchange(descriptor_, -1); }

private:
    int descriptor_;
};

}  // namespace quillon

#endif
