#include <fcntl.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <future>

#include "fakes/timeline.h"
#include "fw-update-common.h"
#include "support/process.h"

using namespace quillon::fakes;

namespace {

using quillon::test::inChild;

constexpr const char* kFile = "/dev/shm/sem.SEM_UPDATE_CONTROL";
constexpr unsigned int kNeverUsed = 9;  // initial value that a semaphore which is there ignores

int valueOf(sem_t* semaphore)
{
    int value = -1;
    sem_getvalue(semaphore, &value);
    return value;
}

class Semaphore : public ::testing::Test
{
protected:
    ~Semaphore() override { EXPECT_EQ(mismatches(), ""); }

    FWUpdateCommon& common = FWUpdateCommon::getInstance();
};

}  // namespace

TEST_F(Semaphore, HolderExistsOnce)
{
    EXPECT_EQ(&FWUpdateCommon::getInstance(), &common);
    EXPECT_STREQ(semName, "/SEM_UPDATE_CONTROL");
}

TEST_F(Semaphore, IsMadeFreeAndForTheOwnerOnly)
{
    sem_t* semaphore = common.create_semaphore();

    ASSERT_NE(semaphore, nullptr);
    EXPECT_EQ(valueOf(semaphore), 1);
    struct stat status = {};
    ASSERT_EQ(stat(kFile, &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
    expectSteps({});
}

TEST_F(Semaphore, ThatIsThereKeepsItsValue)
{
    sem_t* other = sem_open("/SEM_UPDATE_CONTROL", O_CREAT | O_EXCL, 0600, 7);
    ASSERT_NE(other, SEM_FAILED);

    sem_t* semaphore = common.create_semaphore();

    ASSERT_NE(semaphore, nullptr);
    EXPECT_EQ(valueOf(semaphore), 7);
}

TEST_F(Semaphore, HeldByAnotherProcessIsOpenedAtOnceAndBlocksUntilThePost)
{
    ASSERT_EQ(inChild([] {
                  sem_t* mine = sem_open("/SEM_UPDATE_CONTROL", O_CREAT, 0600, 1);
                  return mine != SEM_FAILED && sem_wait(mine) == 0 ? 0 : 1;
              }),
              0);

    sem_t* semaphore = common.create_semaphore();

    ASSERT_NE(semaphore, nullptr);
    EXPECT_EQ(valueOf(semaphore), 0);
    auto waiter = std::async(std::launch::async, [semaphore] { return sem_wait(semaphore); });
    EXPECT_EQ(waiter.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    ASSERT_EQ(inChild([] {
                  return sem_post(sem_open("/SEM_UPDATE_CONTROL", O_CREAT, 0600, kNeverUsed)) == 0
                             ? 0
                             : 1;
              }),
              0);
    EXPECT_EQ(waiter.get(), 0);
}

TEST_F(Semaphore, OutlivesTheProcessThatMadeIt)
{
    ASSERT_EQ(inChild([] {
                  sem_t* mine = FWUpdateCommon::getInstance().create_semaphore();
                  const bool made = mine != nullptr && sem_wait(mine) == 0;
                  FWUpdateCommon::getInstance().destroy_semaphore();
                  return made ? 0 : 1;
              }),
              0);

    sem_t* semaphore = sem_open("/SEM_UPDATE_CONTROL", O_CREAT, 0600, kNeverUsed);

    ASSERT_NE(semaphore, SEM_FAILED);
    EXPECT_EQ(valueOf(semaphore), 0);
}

TEST_F(Semaphore, ThatCannotBeHadIsNullAndLogged)
{
    failCall("sem_open", EACCES);

    EXPECT_EQ(common.create_semaphore(), nullptr);

    expectSteps({LogFrom("create_semaphore", ERROR, "Parent\t: [sem_open] Failed\n")});
}

TEST_F(Semaphore, DestroyOpensItClosesItAndLeavesTheName)
{
    recordCalls({"sem_open", "sem_close"});

    common.destroy_semaphore();

    expectTexts(callTexts(), {"sem_open(\"/SEM_UPDATE_CONTROL\", O_CREAT, 0600, 1) = ok",
                              "sem_close(\"/SEM_UPDATE_CONTROL\") = 0"});
    EXPECT_EQ(access(kFile, F_OK), 0);
    sem_t* semaphore = sem_open("/SEM_UPDATE_CONTROL", O_CREAT, 0600, kNeverUsed);
    ASSERT_NE(semaphore, SEM_FAILED);
    EXPECT_EQ(valueOf(semaphore), 1);
}

TEST_F(Semaphore, DestroyOfOneThatCannotBeHadIsLoggedAndClosesNothing)
{
    recordCalls({"sem_close"});
    failCall("sem_open", EACCES);

    common.destroy_semaphore();

    expectSteps({LogFrom("destroy_semaphore", ERROR, "Parent\t: [sem_open] Failed\n")});
}
