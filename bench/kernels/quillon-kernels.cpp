// The work inside of one process, timed by Google Benchmark: the service's own functions and what
// they are held against. Every benchmark works on the file in QUILLON_BENCH_FILE.
//
// Deciphered images are kept, as the service keeps them: no run is flattered by memory that an
// earlier one has touched.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "base/fd.h"
#include "base/handles.h"
#include "base/regular-file.h"
#include "process/warm-memory.h"
#include "reference/file-passes.h"
#include "reference/plain-decipher.h"
#include "src/fw-update-symbol.h"

namespace quillon::bench {
namespace {

constexpr const unsigned char kKey[] = "30313233343536373839616263646566";
constexpr std::size_t kIv = 16;
constexpr int kTrailer = 534;
constexpr std::size_t kBlock = 10240;
constexpr std::size_t kHugePage = 2U << 20U;

/// So much is deciphered in one process at most: 256 MiB once, 1 MiB many times.
constexpr std::uintmax_t kMostBytes = 256U << 20U;
constexpr std::uintmax_t kMostIterations = 64;

using Decipher = unsigned char*(std::FILE*, const unsigned char*, const unsigned char*, int, int&);

unsigned char* decipherAsService(std::FILE* file, const unsigned char* key, const unsigned char* iv,
                                 int count, int& outlen)
{
    return aes_256_cbc_all(file, key, iv, 0, count, outlen);
}

std::string file()
{
    const char* path = std::getenv("QUILLON_BENCH_FILE");
    return path == nullptr ? "" : path;
}

std::int64_t iterationsFor(std::uintmax_t size)
{
    const std::uintmax_t fitting = kMostBytes / (size == 0 ? 1 : size);
    return static_cast<std::int64_t>(fitting < 1                 ? 1
                                     : fitting > kMostIterations ? kMostIterations
                                                                 : fitting);
}

UniqueFile openForService(const std::string& path)
{
    struct stat opened = {};
    return openRegularStream(path, opened);
}

UniqueFile openPlainly(const std::string& path)
{
    return UniqueFile(std::fopen(path.c_str(), "rb"));
}

bool decipherFile(const std::string& path, int size, UniqueFile (*open)(const std::string&),
                  Decipher* decipher)
{
    const UniqueFile stream = open(path);
    std::array<unsigned char, kIv> iv{};
    if (!stream || std::fread(iv.data(), 1, iv.size(), stream.get()) != iv.size()) {
        return false;
    }
    int outlen = 0;
    unsigned char* kept =
        decipher(stream.get(), kKey, iv.data(), size - static_cast<int>(kIv), outlen);
    static std::vector<unsigned char*> all;
    all.push_back(kept);
    return kept != nullptr && outlen > 0;
}

/// What a process does once, and slowly: the cipher's first use, and the key's.
void warmUp(Decipher* decipher)
{
    std::array<char, kIv + kTrailer> bytes{};
    const UniqueFile stream(fmemopen(bytes.data(), bytes.size(), "rb"));
    const std::array<unsigned char, kIv> iv{};
    int outlen = 0;
    std::free(decipher(stream.get(), kKey, iv.data(), static_cast<int>(bytes.size()), outlen));
}

void decipher(benchmark::State& state, UniqueFile (*open)(const std::string&), Decipher* how)
{
    const std::string path = file();
    const auto size = static_cast<int>(std::filesystem::file_size(path));
    warmUp(how);
    for ([[maybe_unused]] auto iteration : state) {
        if (!decipherFile(path, size, open, how)) {
            state.SkipWithError("the file cannot be deciphered");
            return;
        }
    }
    state.SetBytesProcessed(state.iterations() * size);
}

// What deciphering consists of, each part alone: none of it can be left out.

/// Reading as the service does.
void readingBlocks(benchmark::State& state)
{
    std::vector<unsigned char> block(kBlock);
    for ([[maybe_unused]] auto iteration : state) {
        const UniqueFile stream = openForService(file());
        while (std::fread(block.data(), 1, block.size(), stream.get()) == block.size()) {
            benchmark::ClobberMemory();
        }
    }
}

/// The first touch of as much memory, which the kernel has to hand out zeroed.
void touchingMemory(benchmark::State& state)
{
    constexpr std::size_t kPage = 4096;
    const std::size_t size = std::filesystem::file_size(file());
    for ([[maybe_unused]] auto iteration : state) {
        auto* memory = static_cast<unsigned char*>(
            std::aligned_alloc(kHugePage, (size + kHugePage - 1) / kHugePage * kHugePage));
        madvise(memory, size, MADV_HUGEPAGE);
        for (std::size_t at = 0; at < size; at += kPage) {
            memory[at] = 1;
        }
        benchmark::ClobberMemory();
        std::free(memory);
    }
}

/// The cipher alone, over one block that stays in the processor's cache.
void cipherAlone(benchmark::State& state)
{
    const std::size_t size = std::filesystem::file_size(file());
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

void checksumOfService(benchmark::State& state)
{
    FWUpdateSymbol module("bench");
    for ([[maybe_unused]] auto iteration : state) {
        benchmark::DoNotOptimize(module.getBinaryCRC32(file()));
    }
}

void checksumOfReference(benchmark::State& state)
{
    for ([[maybe_unused]] auto iteration : state) {
        benchmark::DoNotOptimize(checksumBytewise(file()));
    }
}

void readingAlone(benchmark::State& state)
{
    for ([[maybe_unused]] auto iteration : state) {
        benchmark::DoNotOptimize(readOnly(file()));
    }
}

void registerAll()
{
    const std::uintmax_t size = std::filesystem::file_size(file());
    const std::int64_t iterations = iterationsFor(size);
    const auto add = []([[maybe_unused]] const char* name, [[maybe_unused]] auto function,
                        [[maybe_unused]] std::int64_t count) {
#ifndef __clang_analyzer__  // it takes what the library keeps for lost
        benchmark::RegisterBenchmark(name, function)
            ->Iterations(count)
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime();
#endif
    };
    const auto service = [](benchmark::State& state) {
        decipher(state, openForService, decipherAsService);
    };
    const auto plain = [](benchmark::State& state) {
        decipher(state, openPlainly, decipherPlainly);
    };
    add("decipher/service", service, iterations);
    add("decipher/plain", plain, iterations);
    add("decipher/service-twice", service, 2);
    add("decipher/plain-twice", plain, 2);
    add("decipher/part-reading", readingBlocks, 1);
    add("decipher/part-memory", touchingMemory, 1);
    add("decipher/part-cipher", cipherAlone, 1);
    add("checksum/service", checksumOfService, iterations);
    add("checksum/bytewise", checksumOfReference, iterations);
    add("checksum/reading-alone", readingAlone, iterations);
}

}  // namespace
}  // namespace quillon::bench

int main(int count, char* arguments[])
{
    if (!std::filesystem::is_regular_file(quillon::bench::file())) {
        static_cast<void>(
            std::fputs("quillon-kernels: QUILLON_BENCH_FILE must name a file\n", stderr));
        return 2;
    }
    quillon::bench::registerAll();
    quillon::bench::warmMemory(std::max(quillon::bench::kMostBytes,
                                        2 * std::filesystem::file_size(quillon::bench::file())));
    benchmark::Initialize(&count, arguments);
    if (benchmark::ReportUnrecognizedArguments(count, arguments)) {
        return 2;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
