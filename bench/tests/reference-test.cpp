#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <system_error>

#include "base/fd.h"
#include "base/handles.h"
#include "driven/stick.h"
#include "process/device.h"
#include "reference/file-passes.h"
#include "reference/plain-decipher.h"
#include "src/fw-update-symbol.h"

namespace quillon::bench {
namespace {

constexpr const unsigned char kKey[] = "30313233343536373839616263646566";

struct Deciphered
{
    UniqueMemory<unsigned char> data;
    int length = 0;
};

template <typename Decipher>
Deciphered decipherImage(const std::string& path, std::uint64_t size, Decipher decipher)
{
    const UniqueFile file(std::fopen(path.c_str(), "rb"));
    std::array<unsigned char, 16> iv{};
    EXPECT_EQ(std::fread(iv.data(), 1, iv.size(), file.get()), iv.size());
    Deciphered result;
    result.data.reset(decipher(file.get(), iv.data(), static_cast<int>(size - 16), result.length));
    return result;
}

/// What the service is held against must do the very same work.
TEST(Reference, DeciphersToTheSameBytesAsTheService)
{
    Workshop workshop(BUILD_FOLDER);
    const std::string stick = workshop.stick(1);
    for (const std::uint64_t payload : {1U, 9000U, 10240U, 300000U}) {
        workshop.putImage(stick, moduleName(1), payload);
        const std::string path = stick + moduleName(1) + ".bin";
        const std::uint64_t size = 16 + (payload + 64) / 16 * 16 + 16 + 534;

        const Deciphered plain = decipherImage(
            path, size, [](std::FILE* file, const unsigned char* iv, int count, int& length) {
                return decipherPlainly(file, kKey, iv, count, length);
            });
        const Deciphered service = decipherImage(
            path, size, [](std::FILE* file, const unsigned char* iv, int count, int& length) {
                return aes_256_cbc_all(file, kKey, iv, 0, count, length);
            });

        ASSERT_EQ(plain.length, static_cast<int>(payload) + 64);
        ASSERT_EQ(service.length, plain.length);
        EXPECT_EQ(std::memcmp(plain.data.get(), service.data.get(),
                              static_cast<std::size_t>(plain.length)),
                  0);
    }
}

TEST(Reference, HasTheSameChecksumAsTheService)
{
    Workshop workshop(BUILD_FOLDER);
    FWUpdateSymbol module("bench");

    for (const std::uint64_t size : {0U, 1U, 32768U, 100001U}) {
        const std::string path = workshop.payload(size);
        EXPECT_EQ(checksumBytewise(path), module.getBinaryCRC32(path)) << size;
        EXPECT_EQ(readOnly(path), size);
    }
}

TEST(Reference, AFileThatIsNotThereIsAnError)
{
    EXPECT_THROW(checksumBytewise("/no/such/file"), std::system_error);
    EXPECT_THROW(readOnly("/no/such/file"), std::system_error);
}

}  // namespace
}  // namespace quillon::bench
