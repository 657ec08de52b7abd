// The library comes and goes without a trace.

#include <malloc.h>

#include <atomic>
#include <memory>
#include <sstream>
#include <thread>
#include <vector>

#include "support/process.h"
#include "support/texts.h"
#include "unit/verifier/verifier-test.h"

namespace quillon::test {
namespace {

class Reload : public VerifierTest
{
protected:
    void SetUp() override
    {
        VerifierTest::SetUp();
        dlclose(library);
        library = nullptr;
    }

    int askAboutAForeignTrailer(decltype(&verifyDigest) check) const
    {
        const auto* bytes = reinterpret_cast<const unsigned char*>(content.data());
        return check(nullptr, bytes, bytes + content.size() - 534, 534, image.c_str(),
                     "UserCaller");
    }

    /// Loads, verifies one good and one bad file and a digest that is not the content's, unloads.
    bool loadVerifyUnload()
    {
        void* handle = dlopen(VERIFIER_LIBRARY, RTLD_LAZY);
        if (handle == nullptr) {
            return false;
        }
        const auto check = reinterpret_cast<decltype(&verifyFile)>(dlsym(handle, "verifyFile"));
        const auto checkDigest =
            reinterpret_cast<decltype(&verifyDigest)>(dlsym(handle, "verifyDigest"));
        const bool right = check != nullptr && check(nullptr, image.c_str(), "UserCaller") == 1 &&
                           check(nullptr, stick.c_str(), "UserCaller") == 0 &&
                           checkDigest != nullptr && askAboutAForeignTrailer(checkDigest) == 0;
        return dlclose(handle) == 0 && right;
    }
};

std::size_t openFiles()
{
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        static_cast<void>(entry);
        ++count;
    }
    return count;
}

std::string exportedSymbols()
{
    const std::string command = std::string(NM_PROGRAM) + " -D --defined-only " VERIFIER_LIBRARY;
    std::string output;
    std::istringstream lines(outputOf(command));
    for (std::string symbol; std::getline(lines, symbol);) {
        output += symbol.substr(symbol.find(' ') + 1) + "\n";  // behind the address
    }
    return output;
}

TEST_F(Reload, NothingButTheEntriesIsExported)
{
    EXPECT_EQ(exportedSymbols(), "T verifyDigest\nT verifyFile\n");
}

TEST_F(Reload, AnUnloadedLibraryIsReallyGone)
{
    ASSERT_TRUE(loadVerifyUnload());

    expectNoText(readAll("/proc/self/maps"), like("*libkUEPUser*"));
}

TEST_F(Reload, AHundredTimesGivesTheSameAnswersAndLeavesNothing)
{
    ::testing::internal::CaptureStderr();
    for (int i = 0; i < 300; ++i) {
        ASSERT_TRUE(loadVerifyUnload());  // OpenSSL and the loader fill their own caches first
    }
    const std::size_t files = openFiles();
    const std::size_t memory = mallinfo2().uordblks;
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(loadVerifyUnload()) << i;
    }
    EXPECT_EQ(openFiles(), files);
    EXPECT_LT(mallinfo2().uordblks, memory + 16 * 1024);
    ::testing::internal::GetCapturedStderr();
}

TEST_F(Reload, FromManyThreadsAtOnceGivesTheSameAnswers)
{
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    ::testing::internal::CaptureStderr();
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < 100; ++round) {
                wrong += loadVerifyUnload() ? 0 : 1;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    ::testing::internal::GetCapturedStderr();

    EXPECT_EQ(wrong, 0);
}

TEST_F(Reload, AThreadThatOutlivesTheLibraryEndsWell)
{
    std::atomic<bool> verified{false};
    std::atomic<bool> unloaded{false};
    void* handle = dlopen(VERIFIER_LIBRARY, RTLD_LAZY);
    ASSERT_NE(handle, nullptr);
    std::thread thread([&] {
        const auto check = reinterpret_cast<decltype(&verifyFile)>(dlsym(handle, "verifyFile"));
        check(nullptr, image.c_str(), "UserCaller");
        verified = true;
        while (!unloaded) {
            std::this_thread::yield();
        }
    });
    while (!verified) {
        std::this_thread::yield();
    }
    dlclose(handle);
    unloaded = true;
    thread.join();  // what the thread kept for itself must not point into the library
    expectNoText(readAll("/proc/self/maps"), like("*libkUEPUser*"));
}

}  // namespace
}  // namespace quillon::test
