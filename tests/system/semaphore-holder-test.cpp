// Who counts as a holder of the update semaphore.

#include <fcntl.h>
#include <semaphore.h>

#include "support/threaded-process.h"
#include "system/control-layer.h"

namespace quillon::test {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

using SemaphoreHolder = ControlLayer;

bool takeSemaphore()
{
    sem_t* semaphore = ::sem_open("/SEM_UPDATE_CONTROL", O_CREAT, 0600, 1);
    return semaphore != SEM_FAILED && ::sem_wait(semaphore) == 0;
}

TEST_F(SemaphoreHolder, IsAProcessWhoseMainThreadHasEnded)
{
    installWaiting("alpha");
    const ThreadedProcess holder(takeSemaphore);
    ASSERT_TRUE(holder.isAtWork());
    const std::string who = "may be held by process " + std::to_string(holder.process()) + " (";

    EXPECT_THAT(json({"unlock"}, 8)["text"].asString(), HasSubstr(who));
    EXPECT_EQ(semaphoreValue(), 0);
    const BackgroundLayer waiting({"modules", "update", "alpha", "--source", "system"});
    EXPECT_TRUE(waiting.says("The update semaphore ")) << waiting.output();
    EXPECT_THAT(waiting.output(), HasSubstr(who));
    EXPECT_THAT(waiting.output(), Not(HasSubstr("unlock")));
}

}  // namespace
}  // namespace quillon::test
