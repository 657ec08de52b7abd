#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "platform/verifier.h"
#include "unit/verifier/test-keys.h"

namespace quillon::test {

/// The verifier, loaded as the service loads it, on a device that trusts maker "a".
class VerifierTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        std::filesystem::remove_all(kTrustedKeys);
        std::filesystem::remove_all(QUILLON_TRUST_POLICY);
        std::filesystem::remove_all(QUILLON_SECURITY_FLOORS);
        trust("a");
        std::filesystem::create_directories(stick);
        makeImage(image, "a", "2.0", "payload");
        content = readAll(image);

        library = dlopen(VERIFIER_LIBRARY, RTLD_LAZY);
        ASSERT_NE(library, nullptr) << dlerror();
        entry = reinterpret_cast<decltype(&verifyFile)>(dlsym(library, "verifyFile"));
        ASSERT_NE(entry, nullptr) << dlerror();
    }

    void TearDown() override
    {
        if (library != nullptr) {
            dlclose(library);
        }
        std::filesystem::remove_all(stick);
    }

    /// Asks the verifier; what it says goes to `said`.
    int verify(const std::string& path)
    {
        ::testing::internal::CaptureStderr();
        const int result = entry(nullptr, path.c_str(), "UserCaller");
        said = ::testing::internal::GetCapturedStderr();
        return result;
    }

    const std::string stick = "/opt/media/USBDriveA/";
    const std::string image = stick + "tuner.bin";
    std::string content;  ///< of the image
    std::string said;
    void* library = nullptr;
    decltype(&verifyFile) entry = nullptr;
};

}  // namespace quillon::test
