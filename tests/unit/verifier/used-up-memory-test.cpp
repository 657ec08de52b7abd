// Reading the trust policy when memory runs out.

#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

#include "platform/verifier/trust-policy.h"
#include "support/files.h"

namespace {

/// The allocation of this thread that fails next, counted down; negative: none.
thread_local int countdown = -1;

void* allocated(std::size_t size)
{
    void* memory = countdown >= 0 && countdown-- == 0 ? nullptr : std::malloc(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

}  // namespace

void* operator new(std::size_t size)
{
    return allocated(size);
}

void* operator new[](std::size_t size)
{
    return allocated(size);
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory, std::size_t /*size*/) noexcept
{
    std::free(memory);
}

namespace quillon::test {
namespace {

TEST(UsedUpMemory, NeverCutsTheTrustPolicyShort)
{
    const std::string path = "/tmp/trust.conf";
    writeFile(path,
              "# a comment that is longer than what a string holds by itself\n"
              "format-1 = refused\n"
              "model = a-model-whose-name-is-longer-than-that\n"
              "floor.amoduleofsomelength = 7\n"
              "floor.anothermoduleofsomelength = 8\n");
    int failing = 0;
    for (bool isDone = false; !isDone; ++failing) {
        countdown = failing;
        try {
            const TrustPolicy policy = loadTrustPolicy(path);
            isDone = countdown >= 0;  // all allocations succeeded
            countdown = -1;
            EXPECT_FALSE(policy.acceptsFormat1) << "allocation " << failing;
            EXPECT_EQ(policy.floors.size(), 2U) << "allocation " << failing;
        } catch (const std::exception&) {
            countdown = -1;
        }
    }
    EXPECT_GT(failing, 5);
}

}  // namespace
}  // namespace quillon::test
