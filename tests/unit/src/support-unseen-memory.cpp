// Memory that nobody will read again.

#include "support/unseen-memory.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "support/advised-memory.h"

namespace quillon::test {
namespace {

class Unseen : public ::testing::Test
{
protected:
    static constexpr std::size_t kPages = 64;

    Unseen()
        : page(static_cast<std::size_t>(sysconf(_SC_PAGESIZE))),
          memory(static_cast<char*>(mmap(nullptr, kPages * page, PROT_READ | PROT_WRITE,
                                         MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)))
    {
        std::memset(memory, 'x', kPages * page);
    }
    ~Unseen() override { munmap(memory, kPages * page); }

    const std::size_t page;
    char* const memory;
};

TEST_F(Unseen, GivesItsPagesBackAndStaysMapped)
{
    {
        const UnseenMemory unseen(memory, kPages * page);
    }
    EXPECT_EQ(residentPages(memory, kPages * page), 0U);
    EXPECT_EQ(memory[kPages * page - 1], 0);
}

TEST_F(Unseen, LeavesWhatSharesAPageWithItsNeighbours)
{
    {
        const UnseenMemory unseen(memory + 1, 3 * page - 2);
    }
    EXPECT_EQ(memory[page - 1], 'x');
    EXPECT_EQ(memory[page], 0);
    EXPECT_EQ(memory[2 * page], 'x');
}

TEST_F(Unseen, SmallerThanAPageStaysAsItIs)
{
    {
        const UnseenMemory unseen(memory + 100, page - 200);
        const UnseenMemory empty(memory, 0);
        const UnseenMemory none(nullptr, 0);
    }
    EXPECT_EQ(memory[page / 2], 'x');
}

TEST_F(Unseen, StaysOnceItIsShown)
{
    {
        UnseenMemory unseen(memory, kPages * page);
        unseen.show();
    }
    EXPECT_EQ(memory[page], 'x');
}

TEST_F(Unseen, KeepsErrno)
{
    munmap(memory, kPages * page);
    errno = EDOM;
    {
        const UnseenMemory gone(memory, kPages * page);
    }
    EXPECT_EQ(errno, EDOM);
}

}  // namespace
}  // namespace quillon::test
