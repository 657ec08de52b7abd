// A value that one thread writes while another reads it.

#include "support/shared-value.h"

#include <gtest/gtest.h>

#include <thread>

namespace quillon::test {
namespace {

TEST(SharedValueTest, HoldsWhatItIsGiven)
{
    SharedValue<int> value(3);
    EXPECT_EQ(value.get(), 3);

    value.set(4);

    EXPECT_EQ(value.get(), 4);
}

TEST(SharedValueTest, ACopyGoesItsOwnWay)
{
    SharedValue<int> value(3);
    const SharedValue<int> copy(value);
    SharedValue<int> assigned(0);
    assigned = value;

    value.set(4);

    EXPECT_EQ(copy.get(), 3);
    EXPECT_EQ(assigned.get(), 3);
}

TEST(SharedValueTest, MayBeWrittenAndReadAtOnce)
{
    SharedValue<long long> value(0);
    std::thread writer([&value] {
        for (int i = 0; i < 10000; ++i) {
            value.set(i % 2 == 0 ? 0 : -1);
        }
    });
    for (int i = 0; i < 10000; ++i) {
        const long long seen = value.get();
        ASSERT_TRUE(seen == 0 || seen == -1) << "half of one value and half of the other";
    }
    writer.join();
}

}  // namespace
}  // namespace quillon::test
