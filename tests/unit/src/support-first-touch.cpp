// Pre-faulting of a large buffer.

#include "support/first-touch.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "support/advised-memory.h"
#include "support/wait.h"

namespace quillon::test {
namespace {

constexpr std::size_t kPage = 4096;
constexpr std::size_t kHugePage = 2U << 20U;

void ease(void* memory, std::size_t size)
{
    const EasedFirstTouch eased(memory, size);
}

std::ptrdiff_t threads()
{
    const std::filesystem::directory_iterator all("/proc/self/task");
    return std::distance(begin(all), end(all));
}

int processors()
{
    cpu_set_t all;
    EXPECT_EQ(sched_getaffinity(0, sizeof all, &all), 0);
    return CPU_COUNT(&all);
}

void stayOnThisProcessor()
{
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<unsigned int>(sched_getcpu()), &one);
    ASSERT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
}

// Untouched memory of its own, whose beginning is aligned to a huge page.
class FirstTouch : public ::testing::Test
{
protected:
    static constexpr std::size_t kSize = 256 * kHugePage;

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

    /// @return whether the memory from begin_ + first to begin_ + end is there within a minute
    bool getsThere(std::size_t first, std::size_t end) const
    {
        return test::eventually([this, first, end] {
            return pages(end / kPage).find('.', first / kPage) == std::string::npos;
        });
    }

    char* begin_;

private:
    char* mapping_;
};

TEST_F(FirstTouch, AdvisesHugePagesAsFarAsTheyFit)
{
    ease(begin_ + 100, 4 * kHugePage);

    EXPECT_FALSE(isAdvisedHuge(begin_ + 100));
    EXPECT_TRUE(isAdvisedHuge(begin_ + kHugePage));
    EXPECT_TRUE(isAdvisedHuge(begin_ + 4 * kHugePage - 1));
    EXPECT_FALSE(isAdvisedHuge(begin_ + 4 * kHugePage));
}

TEST_F(FirstTouch, AdvisesHugePagesForMemoryThatIsAlignedAlready)
{
    ease(begin_, kHugePage);

    EXPECT_TRUE(isAdvisedHuge(begin_));
    EXPECT_FALSE(isAdvisedHuge(begin_ + kHugePage));
}

TEST_F(FirstTouch, AdvisesNoHugePageWhereNoneFits)
{
    ease(begin_ + 1, 2 * kHugePage - 2);
    ease(begin_, kHugePage - 1);
    ease(begin_, 0);

    EXPECT_FALSE(isAdvisedHuge(begin_));
    EXPECT_FALSE(isAdvisedHuge(begin_ + kHugePage));
}

TEST_F(FirstTouch, HasSmallPagesAtOnceWhereNoHugeOneFits)
{
    ease(begin_ + kPage + 1, 4 * kPage);

    EXPECT_EQ(pages(7), "..###..");
}

TEST_F(FirstTouch, HasTheSmallPagesBeforeAndBehindTheHugeOnesAtOnce)
{
    constexpr std::size_t kInHugePage = kHugePage / kPage;
    ease(begin_ + kHugePage - 2 * kPage, kHugePage + 5 * kPage);

    const std::string expected =
        std::string(kInHugePage - 2, '.') + "##" + std::string(kInHugePage, '.') + "###" + "..";
    EXPECT_EQ(pages(expected.size()), expected);
}

TEST_F(FirstTouch, TouchesNothingOutsideOfTheMemory)
{
    ease(begin_ + kPage - 1, 2);
    ease(begin_ + 3 * kPage, 0);

    EXPECT_EQ(pages(5), ".....");
}

TEST_F(FirstTouch, HasLargeMemoryAheadOfItsWriterAndNoMore)
{
    if (processors() < 2) {
        GTEST_SKIP() << "nobody can be ahead on one processor";
    }
    const EasedFirstTouch eased(begin_, 5 * kHugePage);

    EXPECT_TRUE(getsThere(kHugePage, 5 * kHugePage));
    EXPECT_EQ(pages(kSize / kPage).find('#', 5 * kHugePage / kPage), std::string::npos);
}

TEST_F(FirstTouch, LeavesTheFirstHugePageToItsWriter)
{
    const EasedFirstTouch eased(begin_, 5 * kHugePage);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));

    EXPECT_EQ(pages(1), ".");
}

TEST_F(FirstTouch, HasNoThreadForSmallerMemory)
{
    const std::ptrdiff_t before = threads();
    const EasedFirstTouch eased(begin_, 4 * kHugePage - 1);

    EXPECT_EQ(threads(), before);
}

TEST_F(FirstTouch, HasNoThreadWhereItMayRunOnOneProcessorOnly)
{
    const std::ptrdiff_t before = threads();
    stayOnThisProcessor();
    const EasedFirstTouch eased(begin_, kSize);

    EXPECT_EQ(threads(), before);
}

TEST_F(FirstTouch, EndsWithItsObjectHoweverMuchIsLeft)
{
    ease(begin_, kSize);

    const std::string after = pages(kSize / kPage);
    EXPECT_EQ(after.back(), '.');
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(pages(kSize / kPage), after);
}

TEST_F(FirstTouch, DoesWithoutAThreadWhereThereIsNone)
{
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "a sanitizer needs more address space than is left here";
#endif
    rlimit before = {};
    ASSERT_EQ(getrlimit(RLIMIT_AS, &before), 0);
    std::size_t used = 0;
    ASSERT_TRUE(std::ifstream("/proc/self/statm") >> used);
    rlimit tight = before;
    tight.rlim_cur = (used + 16) * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    errno = 77;

    ASSERT_EQ(setrlimit(RLIMIT_AS, &tight), 0);
    const EasedFirstTouch eased(begin_, kSize);
    ASSERT_EQ(setrlimit(RLIMIT_AS, &before), 0);

    EXPECT_EQ(errno, 77);
    EXPECT_EQ(threads(), 1);
    EXPECT_TRUE(isAdvisedHuge(begin_));
}

TEST_F(FirstTouch, LeavesContentsAndErrnoAlone)
{
    begin_[kHugePage] = 'x';
    errno = 77;

    ease(begin_, kSize);
    ease(nullptr, 0);

    EXPECT_EQ(errno, 77);
    EXPECT_EQ(begin_[kHugePage], 'x');
}

}  // namespace
}  // namespace quillon::test
