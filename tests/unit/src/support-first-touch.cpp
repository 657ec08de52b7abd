// What makes the first touch of large memory cheap.

#include "support/first-touch.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "support/advised-memory.h"

namespace quillon::test {
namespace {

constexpr std::size_t kPage = 4096;
constexpr std::size_t kHugePage = 2U << 20U;

// Untouched memory of its own, whose beginning is aligned to a huge page.
class FirstTouch : public ::testing::Test
{
protected:
    static constexpr std::size_t kSize = 8 * kHugePage;

    FirstTouch()
        : mapping_(static_cast<char*>(mmap(nullptr, kSize + kHugePage, PROT_READ | PROT_WRITE,
                                           MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0)))
    {
        const auto address = reinterpret_cast<std::uintptr_t>(mapping_);
        begin_ = mapping_ + (kHugePage - address % kHugePage) % kHugePage;
        // A kernel may be set to hand out huge pages unasked.
        madvise(mapping_, kSize + kHugePage, MADV_NOHUGEPAGE);
    }
    ~FirstTouch() override { munmap(mapping_, kSize + kHugePage); }

    /// @return for each page from begin_ on, whether it is there: '#' or '.'
    std::string pages(std::size_t count) const
    {
        std::vector<unsigned char> there(count);
        EXPECT_EQ(mincore(begin_, count * kPage, there.data()), 0);
        std::string text;
        for (const unsigned char page : there) {
            text += (page & 1U) != 0 ? '#' : '.';
        }
        return text;
    }

    char* begin_;

private:
    char* mapping_;
};

TEST_F(FirstTouch, AdvisesHugePagesAsFarAsTheyFit)
{
    easeFirstTouch(begin_ + 100, 4 * kHugePage);

    EXPECT_FALSE(isAdvisedHuge(begin_ + 100));
    EXPECT_TRUE(isAdvisedHuge(begin_ + kHugePage));
    EXPECT_TRUE(isAdvisedHuge(begin_ + 4 * kHugePage - 1));
    EXPECT_FALSE(isAdvisedHuge(begin_ + 4 * kHugePage));
}

TEST_F(FirstTouch, AdvisesHugePagesForMemoryThatIsAlignedAlready)
{
    easeFirstTouch(begin_, kHugePage);

    EXPECT_TRUE(isAdvisedHuge(begin_));
    EXPECT_FALSE(isAdvisedHuge(begin_ + kHugePage));
}

TEST_F(FirstTouch, AdvisesNoHugePageWhereNoneFits)
{
    easeFirstTouch(begin_ + 1, 2 * kHugePage - 2);
    easeFirstTouch(begin_, kHugePage - 1);
    easeFirstTouch(begin_, 0);

    EXPECT_FALSE(isAdvisedHuge(begin_));
    EXPECT_FALSE(isAdvisedHuge(begin_ + kHugePage));
}

TEST_F(FirstTouch, HasSmallPagesAtOnceWhereNoHugeOneFits)
{
    easeFirstTouch(begin_ + kPage + 1, 4 * kPage);

    EXPECT_EQ(pages(7), "..###..");
}

TEST_F(FirstTouch, HasTheSmallPagesBeforeAndBehindTheHugeOnesAtOnce)
{
    constexpr std::size_t kInHugePage = kHugePage / kPage;
    easeFirstTouch(begin_ + kHugePage - 2 * kPage, kHugePage + 5 * kPage);

    const std::string expected =
        std::string(kInHugePage - 2, '.') + "##" + std::string(kInHugePage, '.') + "###" + "..";
    EXPECT_EQ(pages(expected.size()), expected);
}

TEST_F(FirstTouch, TouchesNothingOutsideOfTheMemory)
{
    easeFirstTouch(begin_ + kPage - 1, 2);
    easeFirstTouch(begin_ + 3 * kPage, 0);

    EXPECT_EQ(pages(5), ".....");
}

TEST_F(FirstTouch, LeavesContentsAndErrnoAlone)
{
    begin_[kHugePage] = 'x';
    errno = 77;

    easeFirstTouch(begin_, kSize);
    easeFirstTouch(nullptr, 0);

    EXPECT_EQ(errno, 77);
    EXPECT_EQ(begin_[kHugePage], 'x');
}

}  // namespace
}  // namespace quillon::test
