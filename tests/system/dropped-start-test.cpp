// The stick goes between the client's estimate and the one that the service makes at its first
// start.

#include <quillon/client.h>

#include <filesystem>

#include "support/texts.h"
#include "system/system-test.h"

namespace quillon::test {
namespace {

class DroppedStart : public SystemTest
{
};

TEST_F(DroppedStart, ForAStickThatWasTakenOutIsAnErrorAtOnce)
{
    putImagesForAll("2.0");
    ASSERT_NO_FATAL_FAILURE(daemon.startAndWait());
    Client client;
    ASSERT_FALSE(client.connect());
    ASSERT_FALSE(client.setDirectory(kStick));
    ASSERT_TRUE(client.estimate().value.updateNeeded);
    std::filesystem::remove_all(kStick);

    const Error error = client.start();
    EXPECT_EQ(error.code, ErrorCode::kNoReply);
    expectText(error.text, like("*started nothing*"));
    expectText(error.text, like("*taken out*"));
    expectText(error.text, like("*image key*"));
    expectText(error.text, like("*put the stick back*"));
    EXPECT_EQ(client.progress().value.state, Progress::kIdle);

    std::filesystem::create_directories(kStick);
    putImagesForAll("2.0");
    ASSERT_TRUE(client.estimate().value.updateNeeded) << "the client is still in step";
    EXPECT_FALSE(client.start());
}

}  // namespace
}  // namespace quillon::test
