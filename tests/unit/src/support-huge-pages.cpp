// Large memory on huge pages.

#include "support/huge-pages.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cerrno>
#include <cstdint>

#include "support/advised-memory.h"

namespace quillon::test {
namespace {

constexpr std::size_t kHugePage = 2U << 20U;

// Untouched memory of its own, whose beginning is aligned to a huge page.
class HugePages : public ::testing::Test
{
protected:
    static constexpr std::size_t kSize = 8 * kHugePage;

    HugePages()
        : mapping_(static_cast<char*>(mmap(nullptr, kSize + kHugePage, PROT_READ | PROT_WRITE,
                                           MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0)))
    {
        const auto address = reinterpret_cast<std::uintptr_t>(mapping_);
        begin_ = mapping_ + (kHugePage - address % kHugePage) % kHugePage;
    }
    ~HugePages() override { munmap(mapping_, kSize + kHugePage); }

    char* begin_;

private:
    char* mapping_;
};

TEST_F(HugePages, AreAdvisedForAllThatFits)
{
    adviseHugePages(begin_ + 100, 4 * kHugePage);

    EXPECT_FALSE(isAdvisedHuge(begin_ + 100));
    EXPECT_TRUE(isAdvisedHuge(begin_ + kHugePage));
    EXPECT_TRUE(isAdvisedHuge(begin_ + 4 * kHugePage - 1));
    EXPECT_FALSE(isAdvisedHuge(begin_ + 4 * kHugePage));
}

TEST_F(HugePages, AreAdvisedForMemoryThatIsAlignedAlready)
{
    adviseHugePages(begin_, kHugePage);

    EXPECT_TRUE(isAdvisedHuge(begin_));
    EXPECT_FALSE(isAdvisedHuge(begin_ + kHugePage));
}

TEST_F(HugePages, AreNotAdvisedWhereNoneFits)
{
    adviseHugePages(begin_ + 1, 2 * kHugePage - 2);
    adviseHugePages(begin_, kHugePage - 1);
    adviseHugePages(begin_, 0);

    EXPECT_FALSE(isAdvisedHuge(begin_));
    EXPECT_FALSE(isAdvisedHuge(begin_ + kHugePage));
}

TEST_F(HugePages, LeaveContentsAndErrnoAlone)
{
    begin_[kHugePage] = 'x';
    errno = 77;

    adviseHugePages(begin_, kSize);
    adviseHugePages(nullptr, 0);

    EXPECT_EQ(errno, 77);
    EXPECT_EQ(begin_[kHugePage], 'x');
}

}  // namespace
}  // namespace quillon::test
