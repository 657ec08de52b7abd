#pragma once

#include <gtest/gtest.h>

#include "fakes/recording-platform.h"
#include "fakes/timeline.h"
#include "support/device.h"

namespace quillon::test {

/// Base of the tests that need a device. Nothing is cleaned up: each test case runs in a process
/// and on a device of its own.
class DeviceTest : public ::testing::Test
{
protected:
    /// Every log line must have gone out the way all of them do.
    void TearDown() override { EXPECT_EQ(fakes::mismatches(), ""); }

    Device device;
    const unsigned char* const key = reinterpret_cast<const unsigned char*>(kKeyText);
};

}  // namespace quillon::test
