// What the verifier does when memory runs out: nothing is signed then, and the process goes on.

#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <string>
#include <system_error>
#include <vector>

#include "platform/verifier/public-key.h"
#include "platform/verifier/trust-policy.h"
#include "support/failing-memory.h"
#include "unit/verifier/verifier-test.h"

namespace quillon::test {
namespace {

TEST(UsedUpMemory, NeverCutsTheTrustPolicyShort)
{
    const std::string path = "/tmp/trust.conf";
    writeFile(path,
              "# a comment that is longer than what a string holds by itself\n"
              "format-1 = refused\n"
              "model = a-model-whose-name-is-longer-than-that\n"
              "floor.amoduleofsomelength = 7\n"
              "floor.anothermoduleofsomelength = 8\n");
    int failing = 0;
    for (bool isDone = false; !isDone; ++failing) {
        failAllocation(failing);
        try {
            const TrustPolicy policy = loadTrustPolicy(path);
            isDone = !stopFailing();
            EXPECT_FALSE(policy.acceptsFormat1) << "allocation " << failing;
            EXPECT_EQ(policy.floors.size(), 2U) << "allocation " << failing;
        } catch (const std::exception&) {
            stopFailing();
        }
    }
    EXPECT_GT(failing, 5);
}

TEST(UsedUpMemory, NeverCutsTheListOfKeysShort)
{
    const std::string directory = "/tmp/keys";
    std::filesystem::create_directories(directory);
    for (const char* name : {"a-key-with-a-long-name.pem", "another-one.pem", "no-key", ".pem"}) {
        writeFile(directory + "/" + name, "");
    }
    const std::vector<std::string> all = {directory + "/a-key-with-a-long-name.pem",
                                          directory + "/another-one.pem"};
    int failing = 0;
    for (bool isDone = false; !isDone; ++failing) {
        std::vector<std::string> found;
        std::error_code error;
        failAllocation(failing);
        try {
            found = pemFilesIn(directory + "/", error);
            isDone = !stopFailing();
            EXPECT_TRUE(error || found == all) << "allocation " << failing;
        } catch (const std::bad_alloc&) {
            stopFailing();
        }
    }
    EXPECT_GT(failing, 2);
}

class UsedUpMemoryOfTheVerifier : public VerifierTest
{
protected:
    /// Asks again and again, each time with another allocation that fails.
    /// @return how often the image was signed, the last time with all memory that was needed
    int countSigned()
    {
        ::testing::internal::CaptureStderr();
        int signedImages = 0;
        int failing = 0;
        for (bool isDone = false; !isDone; ++failing) {
            failAllocation(failing);
            signedImages += entry(nullptr, image.c_str(), "UserCaller");
            isDone = !stopFailing();
        }
        ::testing::internal::GetCapturedStderr();
        EXPECT_GT(failing, 20);
        return signedImages;
    }
};

TEST_F(UsedUpMemoryOfTheVerifier, MakesAnImageNotSigned)
{
    putPolicy("floor.amoduleofsomelength = 7\n");
    EXPECT_EQ(countSigned(), 1);
}

TEST_F(UsedUpMemoryOfTheVerifier, NeverMakesAnImageSigned)
{
    std::filesystem::remove_all(kTrustedKeys);
    trust("b");
    EXPECT_EQ(countSigned(), 0);
}

}  // namespace
}  // namespace quillon::test
