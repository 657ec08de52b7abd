// Owners of what must be given back.

#include "support/unique-handles.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include "support/device.h"

namespace quillon::test {
namespace {

int openSomething()
{
    return open("/dev/null", O_RDONLY | O_CLOEXEC);
}

TEST(UniqueDescriptorTest, ClosesItsDescriptor)
{
    const int before = openDescriptors();
    {
        const UniqueDescriptor descriptor(openSomething());
        EXPECT_EQ(openDescriptors(), before + 1);
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST(UniqueDescriptorTest, KeepsItOpenWhenItIsReleased)
{
    const int before = openDescriptors();
    int number = -1;
    {
        UniqueDescriptor descriptor(openSomething());
        number = descriptor.release();
        EXPECT_EQ(descriptor.get(), -1);
    }
    EXPECT_EQ(openDescriptors(), before + 1);
    close(number);
}

TEST(UniqueDescriptorTest, OwnsNothingWhenEmpty)
{
    const UniqueDescriptor descriptor;
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
