#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "unit/platform/captured-stderr.h"

/// The secure storage of the virtual device, empty at the start of every test. Refuses to run where
/// the storage holds something, since that would be a real device's keys.
class ItemDirectory : public testing::Test
{
protected:
    static constexpr char kDirectory[] = "/var/lib/quillon/secure-storage";

    void SetUp() override;
    void TearDown() override;

    static void makeDirectory();
    static std::string pathOf(const std::string& item) { return kDirectory + ("/" + item); }
    static void writeFile(const std::string& path, const std::string& bytes, mode_t mode = 0600);
    static std::vector<std::string> namesInDirectory();

    CapturedStderr captured;
};
