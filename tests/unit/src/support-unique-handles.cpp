// Owners of what must be given back.

#include "base/fd.h"
#include "base/handles.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include "support/device.h"

namespace quillon::test {
namespace {

int openSomething()
{
    return open("/dev/null", O_RDONLY | O_CLOEXEC);
}

TEST(UniqueFdTest, ClosesItsDescriptor)
{
    const int before = openDescriptors();
    {
        const UniqueFd descriptor(openSomething());
        EXPECT_EQ(openDescriptors(), before + 1);
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST(UniqueFdTest, KeepsItOpenWhenItIsReleased)
{
    const int before = openDescriptors();
    int number = -1;
    {
        UniqueFd descriptor(openSomething());
        number = descriptor.release();
        EXPECT_EQ(descriptor.get(), -1);
    }
    EXPECT_EQ(openDescriptors(), before + 1);
    close(number);
}

TEST(UniqueFdTest, OwnsNothingWhenEmpty)
{
    const UniqueFd descriptor;
    EXPECT_EQ(descriptor.get(), -1);
}

TEST(UniqueFileTest, ClosesItsStream)
{
    const int before = openDescriptors();
    {
        const UniqueFile file(std::fopen("/dev/null", "r"));
        EXPECT_EQ(openDescriptors(), before + 1);
    }
    EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
}  // namespace quillon::test
