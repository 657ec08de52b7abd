// The service's own functions and what they are held against, timed by Google Benchmark over the
// file in QUILLON_BENCH_FILE, QUILLON_BENCH_TIMES times. With --compare alone its status says
// whether both give the same bytes and the same checksum of the file.
//
// Deciphered images are kept: no run is flattered by memory that an earlier one has touched.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "base/handles.h"
#include "base/regular-file.h"
#include "src/fw-update-symbol.h"
#include "support/checksum-slicing.h"

namespace quillon::bench {
namespace {

constexpr const unsigned char kKey[] = "30313233343536373839616263646566";
constexpr std::size_t kIv = 16;
constexpr int kTrailer = 534;
constexpr std::size_t kBlock = 10240;       // of deciphering
constexpr std::size_t kLargeBlock = 32768;  // of checksums

std::string file;  // QUILLON_BENCH_FILE

/// Opens the file as the service does, or plainly.
template <bool isPlain>
UniqueFile open()
{
    struct stat opened = {};
    return isPlain ? UniqueFile(std::fopen(file.c_str(), "rb")) : openRegularStream(file, opened);
}

/// Deciphers in the plainest way what aes_256_cbc_all deciphers: 10240 bytes a time through the
/// stream's own buffer, into memory from calloc as it comes.
unsigned char* decipherPlainly(std::FILE* stream, const unsigned char* iv, int count, int& length)
{
    std::vector<unsigned char> input(kBlock);
    auto* output = static_cast<unsigned char*>(std::calloc(static_cast<std::size_t>(count), 1));
    const UniqueCipherContext context(EVP_CIPHER_CTX_new());
    EVP_CipherInit(context.get(), EVP_aes_256_cbc(), kKey, iv, 0);
    int left = count - kTrailer;
    int chunk = 0;
    std::size_t n = kBlock;
    for (length = 0; n == kBlock;) {
        n = std::fread(input.data(), 1, kBlock, stream);
        const int fed = std::min(static_cast<int>(n), left);
        if (fed > 0) {
            EVP_CipherUpdate(context.get(), output + length, &chunk, input.data(), fed);
            length += chunk;
            left -= fed;
        }
    }
    chunk = 0;
    EVP_CipherFinal(context.get(), output + length, &chunk);
    length += chunk;
    return output;
}

/// Deciphers a stream of so many bytes. @return the caller's, or null when it cannot be read
template <bool isPlain>
unsigned char* decipher(const UniqueFile& stream, std::size_t size, int& length)
{
    std::array<unsigned char, kIv> iv{};
    if (!stream || std::fread(iv.data(), 1, iv.size(), stream.get()) != iv.size()) {
        return nullptr;
    }
    const auto count = static_cast<int>(size - kIv);
    return isPlain ? decipherPlainly(stream.get(), iv.data(), count, length)
                   : aes_256_cbc_all(stream.get(), kKey, iv.data(), 0, count, length);
}

/// Deciphers the file and keeps what comes out. @return whether something does
template <bool isPlain>
bool decipherAll()
{
    static std::vector<unsigned char*> kept;
    int length = 0;
    kept.push_back(decipher<isPlain>(open<isPlain>(), std::filesystem::file_size(file), length));
    return kept.back() != nullptr && length > 0;
}

// What deciphering consists of, each part alone: none of it can be left out.

/// The first touch of as much memory, which the kernel has to hand out zeroed.
bool touchMemory()
{
    constexpr std::size_t kHugePage = 2U << 20U;
    const std::size_t size = std::filesystem::file_size(file);
    const UniqueMemory<unsigned char> memory(static_cast<unsigned char*>(
        std::aligned_alloc(kHugePage, (size + kHugePage - 1) / kHugePage * kHugePage)));
    madvise(memory.get(), size, MADV_HUGEPAGE);
    for (std::size_t at = 0; at < size; at += 4096) {
        memory.get()[at] = 1;
    }
    benchmark::ClobberMemory();
    return true;
}

/// The cipher alone, over one block that stays in the processor's cache.
bool decipherOneBlock()
{
    const std::size_t size = std::filesystem::file_size(file);
    const std::vector<unsigned char> input(kBlock);
    std::vector<unsigned char> output(kBlock + EVP_MAX_BLOCK_LENGTH);
    const UniqueCipherContext context(EVP_CIPHER_CTX_new());
    int length = EVP_CipherInit(context.get(), EVP_aes_256_cbc(), kKey, kKey, 0);
    for (std::size_t done = 0; done < size; done += kBlock) {
        EVP_CipherUpdate(context.get(), output.data(), &length, input.data(), kBlock);
    }
    return length > 0;
}

/// Reads the file, opened as the service does or plainly, in blocks of such a size.
template <bool isPlain, std::size_t kSize, typename Take>
void passOver(Take take)
{
    std::vector<unsigned char> block(kSize);
    const UniqueFile stream = open<isPlain>();
    while (const std::size_t count = std::fread(block.data(), 1, block.size(), stream.get())) {
        take(block.data(), count);
    }
}

template <bool isPlain, std::size_t kSize>
bool readAll()
{
    passOver<isPlain, kSize>([](const unsigned char* data, std::size_t /*size*/) {
        benchmark::DoNotOptimize(data);
        benchmark::ClobberMemory();
    });
    return true;
}

/// The checksum of the file with one table, one byte a step.
std::uint32_t checksumBytewise()
{
    static const auto table = [] {
        std::array<std::uint32_t, 256> entries{};
        for (std::uint32_t byte = 0; byte < entries.size(); ++byte) {
            std::uint32_t entry = byte << 24U;
            for (int bit = 0; bit < 8; ++bit) {
                entry = (entry << 1U) ^ ((entry & 0x80000000U) != 0 ? 0x01B23CA3U : 0);
            }
            entries[byte] = entry;
        }
        return entries;
    }();
    std::uint32_t crc = 0;
    passOver<true, kLargeBlock>([&crc](const unsigned char* data, std::size_t size) {
        for (std::size_t i = 0; i < size; ++i) {
            crc = (crc << 8U) ^ table[(crc >> 24U) ^ data[i]];
        }
    });
    return crc;
}

/// The checksum as a processor gets it that does not multiply without carries.
std::uint32_t checksumSliced()
{
    std::uint32_t crc = 0;
    passOver<false, kLargeBlock>([&crc](const unsigned char* data, std::size_t size) {
        crc = checksumBySlicing(crc, data, size);
    });
    return crc;
}

unsigned long checksumOfTheService()
{
    return FWUpdateSymbol("bench").getBinaryCRC32(file);
}

/// What the work returns is kept; where that is false, it could not be done.
template <auto work>
void timed(benchmark::State& state)
{
    for ([[maybe_unused]] auto iteration : state) {
        auto result = work();
        benchmark::DoNotOptimize(result);
        if (!result) {
            state.SkipWithError("the work cannot be done with this file");
        }
    }
}

void asOftenAsWanted(benchmark::internal::Benchmark* benchmark)
{
    const char* times = std::getenv("QUILLON_BENCH_TIMES");
    benchmark->Iterations(times == nullptr ? 1 : std::atoi(times))
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
}

#define QUILLON_TIMED(name, ...) \
    BENCHMARK_TEMPLATE(timed, __VA_ARGS__)->Name(name)->Apply(asOftenAsWanted)

QUILLON_TIMED("decipher/service", decipherAll<false>);
QUILLON_TIMED("decipher/plain", decipherAll<true>);
QUILLON_TIMED("decipher/part-reading", readAll<false, kBlock>);
QUILLON_TIMED("decipher/part-memory", touchMemory);
QUILLON_TIMED("decipher/part-cipher", decipherOneBlock);
QUILLON_TIMED("checksum/service", checksumOfTheService);
QUILLON_TIMED("checksum/bytewise", checksumBytewise);
QUILLON_TIMED("checksum/sliced", checksumSliced);
QUILLON_TIMED("checksum/reading-alone", readAll<true, kLargeBlock>);

bool givesTheSame()
{
    const std::size_t size = std::filesystem::file_size(file);
    int length = 0;
    int plainLength = 0;
    const UniqueMemory<unsigned char> ours(decipher<false>(open<false>(), size, length));
    const UniqueMemory<unsigned char> plain(decipher<true>(open<true>(), size, plainLength));
    return ours && plain && length > 0 && length == plainLength &&
           std::memcmp(ours.get(), plain.get(), static_cast<std::size_t>(length)) == 0 &&
           FWUpdateSymbol("bench").getBinaryCRC32(file) == checksumBytewise();
}

}  // namespace
}  // namespace quillon::bench

int main(int count, char* arguments[])
{
    using namespace quillon::bench;
    const char* path = std::getenv("QUILLON_BENCH_FILE");
    file = path == nullptr ? "" : path;
    if (!std::filesystem::is_regular_file(file)) {
        static_cast<void>(std::fputs("kernels: QUILLON_BENCH_FILE must name a file\n", stderr));
        return 2;
    }
    if (count == 2 && std::strcmp(arguments[1], "--compare") == 0) {
        return givesTheSame() ? 0 : 1;
    }
    benchmark::Initialize(&count, arguments);
    if (benchmark::ReportUnrecognizedArguments(count, arguments)) {
        return 2;
    }
    static_cast<void>(decipherOneBlock());  // what a process does once, and slowly
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
