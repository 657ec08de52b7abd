// Who counts as a holder of the update semaphore.

#include <fcntl.h>
#include <semaphore.h>

#include "support/texts.h"
#include "support/threaded-process.h"
#include "system/control-layer.h"

namespace quillon::test {
namespace {

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

    expectText(json({"unlock"}, 8)["text"].asString(), like("*" + std::string(who) + "*"));
    EXPECT_EQ(semaphoreValue(), 0);
    const BackgroundLayer waiting({"modules", "update", "alpha", "--source", "system"});
    EXPECT_TRUE(waiting.says("The update semaphore ")) << waiting.output();
    expectText(waiting.output(), like("*" + std::string(who) + "*"));
    expectNoText(waiting.output(), like("*unlock*"));
}

}  // namespace
}  // namespace quillon::test
