// The work inside of one process, timed by Google Benchmark: the service's own functions and what
// they are held against. Everything works on the file in QUILLON_BENCH_FILE, QUILLON_BENCH_TIMES
// times.
//
// With --compare alone it times nothing, but says by its status whether what the service is held
// against gives the same bytes and the same checksum of the file.
//
// Deciphered images are kept, as the service keeps them: no run is flattered by memory that an
// earlier one has touched.
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

template <bool isPlain>
void deciphering(benchmark::State& state)
{
    static std::vector<unsigned char*> kept;
    // What a process does once, and slowly: the cipher's first use, and the key's.
    std::array<char, 2 * kIv + kTrailer> bytes{};
    int length = 0;
    std::free(decipher<isPlain>(UniqueFile(fmemopen(bytes.data(), bytes.size(), "rb")),
                                bytes.size(), length));
    for ([[maybe_unused]] auto iteration : state) {
        kept.push_back(
            decipher<isPlain>(open<isPlain>(), std::filesystem::file_size(file), length));
        if (kept.back() == nullptr || length <= 0) {
            state.SkipWithError("the file cannot be deciphered");
            return;
        }
    }
}

// What deciphering consists of, each part alone: none of it can be left out.

/// The first touch of as much memory, which the kernel has to hand out zeroed.
void touchingMemory(benchmark::State& state)
{
    constexpr std::size_t kHugePage = 2U << 20U;
    const std::size_t size = std::filesystem::file_size(file);
    for ([[maybe_unused]] auto iteration : state) {
        auto* memory = static_cast<unsigned char*>(
            std::aligned_alloc(kHugePage, (size + kHugePage - 1) / kHugePage * kHugePage));
        madvise(memory, size, MADV_HUGEPAGE);
        for (std::size_t at = 0; at < size; at += 4096) {
            memory[at] = 1;
        }
        benchmark::ClobberMemory();
        std::free(memory);
    }
}

/// The cipher alone, over one block that stays in the processor's cache.
void cipherAlone(benchmark::State& state)
{
    const std::size_t size = std::filesystem::file_size(file);
    const std::vector<unsigned char> input(kBlock);
    std::vector<unsigned char> output(kBlock + EVP_MAX_BLOCK_LENGTH);
    const UniqueCipherContext context(EVP_CIPHER_CTX_new());
    EVP_CipherInit(context.get(), EVP_aes_256_cbc(), kKey, kKey, 0);
    for ([[maybe_unused]] auto iteration : state) {
        for (std::size_t done = 0; done < size; done += kBlock) {
            int length = 0;
            EVP_CipherUpdate(context.get(), output.data(), &length, input.data(),
                             static_cast<int>(kBlock));
        }
        benchmark::ClobberMemory();
    }
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
void reading(benchmark::State& state)
{
    for ([[maybe_unused]] auto iteration : state) {
        passOver<isPlain, kSize>([](const unsigned char* data, std::size_t /*size*/) {
            benchmark::DoNotOptimize(data);
            benchmark::ClobberMemory();
        });
    }
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
void checksumSliced(benchmark::State& state)
{
    for ([[maybe_unused]] auto iteration : state) {
        std::uint32_t crc = 0;
        passOver<false, kLargeBlock>([&crc](const unsigned char* data, std::size_t size) {
            crc = checksumBySlicing(crc, data, size);
        });
        benchmark::DoNotOptimize(crc);
    }
}

template <bool isPlain>
void checksum(benchmark::State& state)
{
    FWUpdateSymbol module("bench");
    for ([[maybe_unused]] auto iteration : state) {
        benchmark::DoNotOptimize(isPlain ? checksumBytewise() : module.getBinaryCRC32(file));
    }
}

void timed(benchmark::internal::Benchmark* benchmark)
{
    const char* times = std::getenv("QUILLON_BENCH_TIMES");
    benchmark->Iterations(times == nullptr ? 1 : std::atoi(times))
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
}

BENCHMARK_TEMPLATE(deciphering, false)->Name("decipher/service")->Apply(timed);
BENCHMARK_TEMPLATE(deciphering, true)->Name("decipher/plain")->Apply(timed);
BENCHMARK_TEMPLATE(reading, false, kBlock)->Name("decipher/part-reading")->Apply(timed);
BENCHMARK(touchingMemory)->Name("decipher/part-memory")->Apply(timed);
BENCHMARK(cipherAlone)->Name("decipher/part-cipher")->Apply(timed);
BENCHMARK_TEMPLATE(checksum, false)->Name("checksum/service")->Apply(timed);
BENCHMARK_TEMPLATE(checksum, true)->Name("checksum/bytewise")->Apply(timed);
BENCHMARK(checksumSliced)->Name("checksum/sliced")->Apply(timed);
BENCHMARK_TEMPLATE(reading, true, kLargeBlock)->Name("checksum/reading-alone")->Apply(timed);

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
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
